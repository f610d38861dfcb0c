#include "capture/GrabberChoice.h"
#include "capture/Platform.h"

#include <QSysInfo>
#include <QTest>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/hwcontext.h>
}

using namespace orvane;

class GrabberChoiceTest : public QObject
{
    Q_OBJECT

private slots:
    void duplicationRoute_data();
    void duplicationRoute();
    void dedicatedGpu_data();
    void dedicatedGpu();
    void thisMachineTakesDesktopGrabber();
};

void GrabberChoiceTest::duplicationRoute_data()
{
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("probe");
    QTest::addColumn<bool>("dedicated");
    QTest::addColumn<bool>("duplication");

    QTest::newRow("10, probe ok, integrated") << "10" << true << false << true;
    QTest::newRow("8 is new enough") << "8" << true << false << true;
    QTest::newRow("7 is too old") << "7" << true << false << false;
    QTest::newRow("8.1 is no whole number") << "8.1" << true << false << false;
    QTest::newRow("no version text") << "" << true << false << false;
    QTest::newRow("probe failed") << "10" << false << false << false;
    QTest::newRow("dedicated GPU") << "10" << true << true << false;
    QTest::newRow("old and dedicated") << "7" << true << true << false;
}

void GrabberChoiceTest::duplicationRoute()
{
    QFETCH(QString, version);
    QFETCH(bool, probe);
    QFETCH(bool, dedicated);
    QFETCH(bool, duplication);
    QCOMPARE(useDuplicationGrabber(version, probe, dedicated), duplication);
}

void GrabberChoiceTest::dedicatedGpu_data()
{
    // Each adapter as "vendor id in hex|description".
    QTest::addColumn<QStringList>("adapters");
    QTest::addColumn<bool>("dedicated");

    QTest::newRow("none") << QStringList() << false;
    QTest::newRow("NVIDIA last, whatever stands before")
        << QStringList{"8086|Intel(R) UHD Graphics 630", "1234|Basic Render Driver", "10de|"} << true;
    QTest::newRow("Intel without the word, then AMD with rx in lower case")
        << QStringList{"8086|Intel(R) Iris(R) Xe Graphics", "1002|Radeon rx 6600"} << true;
    QTest::newRow("AMD without RX only") << QStringList{"1002|AMD Radeon(TM) Graphics"} << false;
    QTest::newRow("AMD's second vendor id with RX") << QStringList{"1022|Radeon RX Vega"} << true;
    QTest::newRow("Intel dedicated in lower case") << QStringList{"8086|intel dedicated card"} << true;
    QTest::newRow("a part of a word matches") << QStringList{"8086|Undedicatedness"} << true;
    QTest::newRow("a shorter text never matches")
        << QStringList{"8086|Dedicate", "1002|R"} << false;
    QTest::newRow("the words belong to their vendor")
        << QStringList{"1002|Dedicated", "8086|RX", "1234|RX Dedicated"} << false;
    // The low byte of U+0152 is 'R'.
    QTest::newRow("low byte of each unit compared")
        << QStringList{QStringLiteral("1002|\u0152x")} << true;
}

void GrabberChoiceTest::dedicatedGpu()
{
    QFETCH(QStringList, adapters);
    QFETCH(bool, dedicated);

    std::vector<DisplayAdapter> list;
    for (const QString& adapter : adapters) {
        const int bar = adapter.indexOf(QLatin1Char('|'));
        list.push_back({adapter.left(bar).toUInt(nullptr, 16), adapter.mid(bar + 1)});
    }
    QCOMPARE(hasDedicatedGpu(list), dedicated);
}

void GrabberChoiceTest::thisMachineTakesDesktopGrabber()
{
    // The probe the capture makes: the hardware device of the duplication
    // route cannot be made here, so the desktop grabber is always taken.
    AVBufferRef* hardware = nullptr;
    const int probe = av_hwdevice_ctx_create(&hardware, AV_HWDEVICE_TYPE_D3D11VA, nullptr, nullptr, 0);
    av_buffer_unref(&hardware);
    QVERIFY2(probe != 0, "the hardware probe unexpectedly succeeded");
    QVERIFY(!useDuplicationGrabber(QSysInfo::productVersion(), probe == 0,
                                   hasDedicatedGpu(platform::displayAdapters())));
    QCOMPARE(platform::desktopGrabber(), "x11grab");
}

QTEST_GUILESS_MAIN(GrabberChoiceTest)

#include "GrabberChoiceTest.moc"
