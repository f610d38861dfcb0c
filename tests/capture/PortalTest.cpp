// Recordings of a Wayland session's screen through the real portal frontend,
// whose test backend shares a PipeWire node painting four quadrants: red,
// green, blue and white (session.sh --portal). The backend's own control
// methods say how the dialog answers and end shares as a compositor would.

#include "interface/ScreenReel.h"
#include "support/Fakes.h"
#include "support/MediaProbe.h"

#include <QtDBus>
#include <QtTest>

using namespace orvane::plugin::interface;
using namespace orvane::test;

namespace {

constexpr int longWait = 60000;

QDBusMessage control(const QString& method, const QVariant& argument = {})
{
    QDBusInterface portal("org.freedesktop.impl.portal.desktop.screenreeltest", "/org/freedesktop/portal/desktop",
                          "org.freedesktop.impl.portal.ScreenCast");
    return argument.isValid() ? portal.call(method, argument) : portal.call(method);
}

} // namespace

class PortalTest : public QObject
{
    Q_OBJECT

    QPluginLoader loader{qEnvironmentVariable("SCREENREEL_PLUGIN")};
    ScreenReel* reel = nullptr;
    QWindow window;
    VideoDevice screen;
    QStringList states;
    QList<qint64> ticks;
    uint refusedDialogs = 0;

private slots:
    void initTestCase()
    {
        reel = qobject_cast<ScreenReel*>(loader.instance());
        QVERIFY2(reel, qPrintable(loader.errorString()));
        connect(reel, &ScreenReel::stateChanged, this, [this](ScreenReel::State s) {
            states << (s == ScreenReel::State::Started ? "Started" : "Stopped");
        });
        connect(reel, &ScreenReel::recorded, this, [this](std::chrono::milliseconds t) { ticks << t.count(); });
        // A window's entry names its screen, which is what is recorded.
        window.setTitle("Portal test");
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        for (const VideoDevice& device : reel->videoDevices())
            screen = device.name == window.title() ? device : screen;
        QCOMPARE(screen.geometry, QRectF(0, 0, 1920, 1080));
    }

    void init()
    {
        states.clear();
        ticks.clear();
        control("SetStill", false);
        control("SetFormat", "BGRx");
    }

    // Before anything was shared: each start asks the user, and is refused.
    void refusals_data()
    {
        QTest::addColumn<QString>("answer");
        QTest::addColumn<QString>("says");
        QTest::newRow("the dialog cancelled") << "cancel" << "cancelled in the system's dialog";
        QTest::newRow("another monitor picked") << "other" << "is not the screen to record";
        QTest::newRow("a share that never sends a picture") << "silent" << "sent no picture";
        QTest::newRow("the portal refuses") << "fail" << "refused to share the screen";
    }

    void refusals()
    {
        QFETCH(QString, answer);
        QFETCH(QString, says);
        control("SetAnswer", answer);
        LogCapture log;
        QBuffer output;
        output.open(QIODevice::WriteOnly);
        QVERIFY(!reel->start(screen, QRect(0, 0, 320, 240), std::nullopt, &output));
        QVERIFY2(log.warnings().value(0).contains(says), qPrintable(log.warnings().join('\n')));
        QVERIFY(output.data().isEmpty());
        QCOMPARE(control("Dialogs").arguments().value(0).toUInt(), ++refusedDialogs);
    }

    void recordings_data()
    {
        QTest::addColumn<QRect>("region");
        QTest::addColumn<QString>("format");
        QTest::addColumn<bool>("still");
        QTest::addColumn<int>("scale");  // of the buffers to the screen the portal says, a scaled monitor's
        const QRect whole(0, 0, 1920, 1080);
        const QRect centre(900, 500, 120, 80);
        QTest::newRow("the whole screen") << whole << "BGRx" << false << 1;
        QTest::newRow("RGBx, a region across the centre") << centre << "RGBx" << false << 1;
        QTest::newRow("BGRA (alpha is padding), still: 25 frames a second all the same") << whole << "BGRA" << true << 1;
        QTest::newRow("buffers at twice the size: scaled, the region cut") << centre << "BGRx" << false << 2;
        QTest::newRow("RGBA at twice the size: the whole screen") << whole << "RGBA" << false << 2;
    }

    // The recorded colours, the size, 25 frames a second however few
    // buffers come; asked in the dialog only the first time.
    void recordings()
    {
        QFETCH(QRect, region);
        QFETCH(QString, format);
        QFETCH(bool, still);
        QFETCH(int, scale);
        control("SetFormat", format);
        control("SetStill", still);
        control("SetScale", uint(scale));
        QBuffer output;
        output.open(QIODevice::WriteOnly);
        QVERIFY(reel->start(screen, region, std::nullopt, &output));
        QTRY_VERIFY_WITH_TIMEOUT(!ticks.isEmpty() && ticks.last() >= 2000, longWait);
        reel->stop();
        const MediaProbe probe = MediaProbe::fromData(output.data());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        QCOMPARE(control("Dialogs").arguments().value(0).toUInt(), refusedDialogs + 1);
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        QCOMPARE(QSize(video.width, video.height), region.size());
        // Two seconds recorded, however few buffers came: a still screen
        // sends a picture a second, the rest are repeats. (Where frames lie,
        // lost ticks included, is MuxerTest's.)
        const auto [first, last] = std::minmax_element(video.pts.begin(), video.pts.end());
        const double span = video.pts.isEmpty() ? 0 : (*last - *first) * video.timeBase;
        QVERIFY2(span >= 1.9, qPrintable(QString("%1 frames over %2 s").arg(video.pts.size()).arg(span)));
        QVERIFY2(!still || video.pts.size() > 2 * span + 4, qPrintable(QString::number(video.pts.size())));
        // The quadrants at the corners; a swapped layout turns red to blue.
        // The encoder's precision is MuxerTest's.
        QCOMPARE(cornerLetters(probe.decodeVideo().constLast()), QString("RGBW"));
    }

    // The compositor ends the share: the picture part ends as on a vanished
    // display, the reason logged, and the file plays to its end. The host
    // stops and starts again before it hears of that: the late word comes
    // while the portal is asked again, and leaves the new recording alone.
    void shareEnded()
    {
        QBuffer output, next;
        output.open(QIODevice::WriteOnly);
        next.open(QIODevice::WriteOnly);
        LogCapture log;
        QVERIFY(reel->start(screen, QRect(0, 0, 320, 240), std::nullopt, &output));
        QTRY_VERIFY_WITH_TIMEOUT(!ticks.isEmpty() && ticks.last() >= 1000, longWait);
        QCOMPARE(control("EndShare").type(), QDBusMessage::ReplyMessage);
        // No event may run before the stop: the worker's end is then on its way.
        for (QDeadlineTimer deadline(longWait); !log.warned("the screen share ended") && !deadline.hasExpired();)
            QThread::msleep(10);
        reel->stop();
        QVERIFY(reel->start(screen, QRect(0, 0, 320, 240), std::nullopt, &next));
        QTest::qWait(500);
        reel->stop();
        QCOMPARE(states.join(' '), QString("Started Stopped Stopped Started Stopped Stopped"));
        const MediaProbe probe = MediaProbe::fromData(output.data());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        QVERIFY2(video.duration >= 1.0, qPrintable(QString::number(video.duration)));
        QCOMPARE(probe.decodeVideo().size(), video.pts.size());
    }

    // Last: the host deletes the plug-in while the portal is being asked.
    void deletedWhileAsking()
    {
        QBuffer output;
        output.open(QIODevice::WriteOnly);
        QTimer::singleShot(0, reel, [this] { delete reel; });
        QVERIFY(!reel->start(screen, QRect(0, 0, 320, 240), std::nullopt, &output));
        QVERIFY(output.data().isEmpty());
    }
};

QTEST_MAIN(PortalTest)
#include "PortalTest.moc"
