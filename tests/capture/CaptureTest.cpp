// Which screen grabber is taken, which of the portal's streams is the screen
// and how its stamps become capture times, and the VideoWorker grabbing a
// real X display that shows four coloured quadrants.
#include "capture/GrabberChoice.h"
#include "capture/Platform.h"
#include "capture/PlatformPci.h"
#include "capture/PortalVideoWorker.h"
#include "capture/ScreenCastPortal.h"
#include "capture/VideoWorker.h"
#include "pipeline/Pipeline.h"
#include "support/Fakes.h"
#include "support/MediaProbe.h"

#include <QCursor>
#include <QProcess>
#include <QPainter>
#include <QRasterWindow>
#include <QtTest>

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/time.h>
}

using namespace orvane;
using plugin::interface::VideoDevice;

Q_DECLARE_METATYPE(std::vector<orvane::SharedStream>)

namespace {

class Scene : public QRasterWindow
{
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.fillRect(0, 0, 960, 540, Qt::red);
        painter.fillRect(960, 0, 960, 540, Qt::green);
        painter.fillRect(0, 540, 960, 540, Qt::blue);
        painter.fillRect(960, 540, 960, 540, Qt::white);
    }
};

} // namespace

class CaptureTest : public QObject
{
    Q_OBJECT
    Scene scene;
    VideoDevice device;

private slots:
    void initTestCase()
    {
        avdevice_register_all();
        av_log_set_level(AV_LOG_FATAL);
        scene.setTitle("Quadrants");
        scene.setFlags(Qt::Window | Qt::FramelessWindowHint);
        scene.setGeometry(0, 0, 1920, 1080);
        scene.show();
        QVERIFY(QTest::qWaitForWindowExposed(&scene));
        QCursor::setPos(480, 810);  // the grabber draws the pointer: away from what is sampled
        device = {"{0x1}", "0", scene.title(), QRectF(0, 0, 1920, 1080), &scene};
    }

    void route_data()
    {
        QTest::addColumn<QString>("version");
        QTest::addColumn<bool>("probe");
        QTest::addColumn<QStringList>("adapters");  // "vendor id in hex|description"
        QTest::addColumn<bool>("duplication");
        const QStringList none;
        // Integrated graphics; each vendor's word belongs to it alone.
        QTest::newRow("10, probe made, no dedicated adapter") << "10" << true
            << QStringList{"8086|Intel(R) UHD", "1002|AMD Radeon(TM) Graphics", "1002|Dedicated", "8086|RX", "1234|RX"} << true;
        QTest::newRow("8 is new enough") << "8" << true << none << true;
        QTest::newRow("7 is too old") << "7" << true << none << false;
        QTest::newRow("8.1 is no whole number") << "8.1" << true << none << false;
        QTest::newRow("probe failed") << "10" << false << none << false;
        QTest::newRow("NVIDIA anywhere") << "10" << true << QStringList{"8086|Intel(R) UHD", "10de|"} << false;
        QTest::newRow("Intel without the word, then AMD with rx")
            << "10" << true << QStringList{"8086|Intel(R) Iris(R) Xe", "1002|Radeon rx 6600"} << false;
        QTest::newRow("AMD's other id, RX") << "10" << true << QStringList{"1022|Radeon RX Vega"} << false;
        QTest::newRow("Intel, Dedicated inside a word") << "10" << true << QStringList{"8086|Undedicatedness"} << false;
        QTest::newRow("low byte of each unit: U+0152 is R") << "10" << true << QStringList{"1002|\u0152x"} << false;
    }
    // Where the duplication grabber is taken over the plain one: a system new
    // enough, a probe made, and no dedicated graphics adapter.
    void route()
    {
        QFETCH(QString, version);
        QFETCH(bool, probe);
        QFETCH(QStringList, adapters);
        QFETCH(bool, duplication);
        std::vector<DisplayAdapter> list;
        for (const QString& adapter : adapters)
            list.push_back({adapter.section('|', 0, 0).toUInt(nullptr, 16), adapter.section('|', 1)});
        QCOMPARE(useDuplicationGrabber(version, probe, hasDedicatedGpu(list)), duplication);
    }

    void streamOfScreen_data()
    {
        QTest::addColumn<std::vector<SharedStream>>("streams");
        QTest::addColumn<qreal>("ratio");
        QTest::addColumn<int>("index");
        const QPoint origin(0, 0);
        const QSize full(1920, 1080), small(1280, 720);
        QTest::newRow("the screen") << std::vector<SharedStream>{{40, origin, full}} << 1.0 << 0;
        QTest::newRow("the one of two at the screen's place")
                << std::vector<SharedStream>{{40, QPoint(1920, 0), full}, {41, origin, full}} << 1.0 << 1;
        QTest::newRow("another monitor of the same size") << std::vector<SharedStream>{{40, QPoint(1920, 0), full}} << 1.0 << -1;
        QTest::newRow("the screen's place, another size") << std::vector<SharedStream>{{40, origin, small}} << 1.0 << -1;
        QTest::newRow("scaled by 1.5: its size in Qt's pixels") << std::vector<SharedStream>{{40, origin, small}} << 1.5 << 0;
        QTest::newRow("no place said, the size matches") << std::vector<SharedStream>{{40, {}, full}} << 1.0 << 0;
        QTest::newRow("no size said") << std::vector<SharedStream>{{40, origin, {}}} << 1.0 << -1;
        QTest::newRow("nothing shared") << std::vector<SharedStream>{} << 1.0 << -1;
    }
    // Which of the streams the portal shares is the screen asked for, 1920x1080 at 0,0.
    void streamOfScreen()
    {
        QFETCH(std::vector<SharedStream>, streams);
        QFETCH(qreal, ratio);
        QTEST(streamForScreen(streams, QRectF(0, 0, 1920, 1080), ratio), "index");
    }

    // A portal stream's stamp moved from the monotonic clock onto the
    // capture clock; one from another clock taken as now. Now is 1000 s on
    // the monotonic clock, 1.7e15 us on the system clock.
    void captureTimeOfStamp()
    {
        const auto captured = [](qint64 ptsNs) { return monotonicToCaptureTime(ptsNs, 1000'000'000'000, 1'700'000'000'000'000); };
        QCOMPARE(captured(999'000'000'000), qint64(1'699'999'999'000'000));  // 1 s old
        QCOMPARE(captured(1001'000'000'000), qint64(1'700'000'000'000'000));  // later than now
        QCOMPARE(captured(1'000'000'000), qint64(1'700'000'000'000'000));     // 999 s ago
    }

    void pciAdapters_data()
    {
        QTest::addColumn<QByteArray>("ids");
        QTest::addColumn<QStringList>("adapters");  // "vendor id in hex|description"
        QTest::newRow("named in the database, or by number where missing")
            << QByteArray("10de  NVIDIA Corporation\n\t2204  GA102 [GeForce RTX 3090]\n")
            << QStringList{"10de|GA102 [GeForce RTX 3090]", "10de|Device abcd"};
        // libpci's own handler would end the process here.
        QTest::newRow("malformed database: all by number, the process goes on")
            << QByteArray("10de  NVIDIA Corporation\n\t2204  GA102\nnot an id\n")
            << QStringList{"10de|Device 2204", "10de|Device abcd"};
    }
    // The display controllers of a sysfs tree, described from an ID database.
    void pciAdapters()
    {
        QFETCH(QByteArray, ids);
        QFETCH(QStringList, adapters);
        QTemporaryDir dir;
        const auto write = [&](const QString& path, const QByteArray& text) {
            QDir().mkpath(QFileInfo(dir.filePath(path)).path());
            QFile file(dir.filePath(path));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(text);
        };
        const QList<QByteArrayList> devices{{"0000:00:03.0", "0x020000", "0x10de", "0x2204"},  // not display
                                            {"0000:01:00.0", "0x030000", "0x10de", "0x2204"},
                                            {"0000:02:00.0", "0x030200", "0x10de", "0xabcd"}};
        for (const QByteArrayList& device : devices)
            for (int i = 1; i < 4; ++i)
                write("devices/" + device[0] + QByteArrayList{"", "/class", "/vendor", "/device"}[i], device[i] + '\n');
        write("pci.ids", ids);
        if (ids.contains("not an id"))
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^libpci failed: Parse error at .*line 3 "
                                                                  "- the graphics adapters are described by number$"));
        QStringList read;
        for (const DisplayAdapter& adapter :
             platform::readDisplayAdapters(dir.filePath("devices"), QFile::encodeName(dir.filePath("pci.ids"))))
            read << QString::number(adapter.vendorId, 16) + '|' + adapter.description;
        QCOMPARE(read, adapters);
    }

    void regions_data()
    {
        QTest::addColumn<QRect>("region");
        QTest::addColumn<QString>("corners");  // 10 px in from each: blacK, Red, Green, Blue, White
        QTest::addColumn<int>("depth");  // 16: a white display of 320x240, grabbed in no 32-bit layout
        QTest::newRow("whole screen") << QRect(0, 0, 1920, 1080) << "RGBW" << 24;
        QTest::newRow("across the centre") << QRect(900, 500, 120, 80) << "RGBW" << 24;
        QTest::newRow("sticking out right and below: black outside") << QRect(1860, 1040, 120, 80) << "WKKK" << 24;
        QTest::newRow("sticking out left and above") << QRect(-20, -20, 100, 100) << "KKKR" << 24;
        QTest::newRow("wholly off the screen: black") << QRect(1920, 0, 100, 100) << "KKKK" << 24;
        QTest::newRow("screen's size elsewhere: neither cut nor moved") << QRect(100, 100, 1920, 1080) << "RGBW" << 24;
        QTest::newRow("16 bits, converted, sticking out") << QRect(300, 200, 40, 60) << "WKKK" << 16;
        // A screen larger than the display: the grabber refuses it.
        QTest::newRow("refused") << QRect(0, 0, 4000, 3000) << "" << 24;
    }
    // What each region shows, cut from the screen as it is grabbed, each image
    // in a buffer of its own that the grabber's next frames leave alone, and
    // stamped with its capture time.
    void regions()
    {
        QFETCH(QRect, region);
        QFETCH(QString, corners);
        QFETCH(int, depth);
        VideoDevice screen = device;
        QProcess xvfb;
        const QByteArray display = qgetenv("DISPLAY");
        if (depth == 16) {
            xvfb.start("Xvfb", {"-displayfd", "1", "-screen", "0", "320x240x16", "-wr", "-nolisten", "tcp", "-noreset"});
            QVERIFY(xvfb.waitForReadyRead(10000));
            qputenv("DISPLAY", ":" + xvfb.readAllStandardOutput().trimmed());
            screen.geometry = QRectF(0, 0, 320, 240);
        }
        if (corners.isEmpty()) {
            screen.geometry = region;
            QTest::ignoreMessage(QtWarningMsg, "unable to open device [ \"Quadrants\" ]");
        }
        QTest::ignoreMessage(QtDebugMsg, "Falling back to gdigrab because d3d11va is not available...");
        Pipeline pipeline(nullptr, nullptr);
        pipeline.video = std::make_unique<VideoWorker>(screen, region, &pipeline);
        qputenv("DISPLAY", display);
        auto* target = new test::KeepingTarget(&pipeline, 10);
        pipeline.target.reset(target);
        QCOMPARE(pipeline.video->videoSize(), corners.isEmpty() ? QSize(0, 0) : region.size());
        QCOMPARE(pipeline.start(), !corners.isEmpty());
        if (corners.isEmpty())
            return;
        QTRY_COMPARE_WITH_TIMEOUT(target->images().size(), 10, 30000);
        // The screen turns black; the images handed over before do not.
        scene.setVisible(corners == "KKKK" || depth == 16);
        QTRY_VERIFY_WITH_TIMEOUT(target->newest() != target->images().last().first || scene.isVisible(), 30000);
        pipeline.stop();
        xvfb.terminate();
        xvfb.waitForFinished();
        scene.show();
        QVERIFY(QTest::qWaitForWindowExposed(&scene));
        for (const auto& [image, captured] : target->images()) {
            // On the system clock and past: a busy machine may deliver it
            // late, but another clock or none would be years off.
            QVERIFY(captured <= av_gettime() && captured > av_gettime() - 60000000);
            QCOMPARE(image.format(), QImage::Format_RGB32);
            QCOMPARE(image.size(), region.size());
            QCOMPARE(test::cornerLetters(image), corners);
        }
    }
};

QTEST_MAIN(CaptureTest)
#include "CaptureTest.moc"
