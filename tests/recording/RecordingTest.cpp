// Recordings made the way a host makes them, through the loaded module on a
// real display and sound server, and faults met while recording.

#include "interface/OpaqueUI.h"
#include "interface/ScreenReel.h"
#include "support/Fakes.h"
#include "support/MediaProbe.h"

#include <QtTest>
#include <QtWidgets>

using namespace orvane::plugin::interface;
using namespace orvane::test;

namespace {

constexpr int longWait = 60000;
const QRect small(0, 0, 320, 240);
const QString startStop = "Started@start Stopped@stop Stopped@stop";
// Its sink's removal moves the recording's stream away, which ends it.
const AudioDevice goneSource{"", "gone.monitor", false};
const AudioDevice tone{"", "reel.monitor", false};

int workerThreads()
{
    int count = 0;
    for (const QString& task : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm("/proc/self/task/" + task + "/comm");
        count += comm.open(QIODevice::ReadOnly)
                 && QByteArrayList{"VideoWorker\n", "AudioWorker\n", "Muxer\n"}.contains(comm.readAll());
    }
    return count;
}

// "h264 320x240, aac", or why it cannot be read. A track without a sample
// is left out of the file, so one listed was written to.
QString contents(const MediaProbe& probe)
{
    QStringList streams;
    for (const auto& s : probe.streams)
        streams << (s.type == "video" ? QString("%1 %2x%3").arg(s.codec).arg(s.width).arg(s.height) : s.codec);
    return probe.isValid() ? streams.join(", ") : probe.error;
}

} // namespace

class RecordingTest : public QObject
{
    Q_OBJECT

    // Each state as "State@phase"; "!" marks a Started seen while a worker
    // thread already runs, or a Stopped while a recording still shows.
    void note(ScreenReel::State state)
    {
        const bool started = state == ScreenReel::State::Started;
        const bool early = started ? workerThreads() > 0 : reel->recordedTime().count() != 0;
        states << (started ? "Started@" : "Stopped@") + phase + (early ? "!" : "");
    }
    // Into a buffer opened for writing, as a host hands it over, unless it is open already.
    bool start(QBuffer* output, const QRect& region, std::optional<AudioDevice> audio = {},
               std::optional<VideoDevice> video = {})
    {
        if (!output->isOpen())
            output->open(QIODevice::WriteOnly);
        phase = "start";
        const bool started = reel->start(video.value_or(screen), region, audio, output);
        phase = "loop";
        return started;
    }
    void stop()
    {
        phase = "stop";
        if (reel)
            reel->stop();
        phase = "loop";
    }

    QPluginLoader loader{qEnvironmentVariable("SCREENREEL_PLUGIN")};
    ScreenReel* reel = nullptr;
    OpaqueUI* ui = nullptr;
    QWidget window;
    VideoDevice screen;
    QString phase = "loop";
    QStringList states;
    QList<qint64> ticks;

private slots:
    void initTestCase()
    {
        reel = qobject_cast<ScreenReel*>(loader.instance());
        ui = qobject_cast<OpaqueUI*>(loader.instance());
        QVERIFY2(reel && ui, qPrintable(loader.errorString()));
        connect(reel, &ScreenReel::stateChanged, this, &RecordingTest::note);
        connect(reel, &ScreenReel::recorded, this, [this](std::chrono::milliseconds t) { ticks << t.count(); });
        window.setWindowTitle("Recording test");
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        for (const VideoDevice& device : reel->videoDevices())
            screen = device.name == window.windowTitle() ? device : screen;
        QVERIFY(screen.window);
    }

    void init()
    {
        states.clear();
        ticks.clear();
    }

    void refusals_data()
    {
        QTest::addColumn<QRect>("region");
        QTest::addColumn<QString>("twist");
        QTest::addColumn<QString>("says");
        QTest::addColumn<QString>("expected");
        const QString built = "Started@start Stopped@start Stopped@start";
        QTest::newRow("a second start") << small << "while recording" << "already running" << startStop;
        QTest::newRow("one pixel too tall") << QRect(0, 0, 1920, 1081) << "" << "invalid region size" << "";
        QTest::newRow("a screen never listed") << small << "unlisted" << "invalid region size" << "";
        QTest::newRow("an odd size") << QRect(0, 0, 101, 75) << "" << "could not open video codec" << built;
        QTest::newRow("an empty region") << QRect(0, 0, 0, 0) << "" << "could not open video codec" << built;
        QTest::newRow("an unknown audio input") << small << "audio:nosuch" << "unable to open device" << built;
        QTest::newRow("an audio input without a name") << small << "audio:" << "unable to open device [ \"\" ]" << built;
        QTest::newRow("a read-only output") << small << "read-only" << "not open for writing" << built;
    }

    // Each refused, saying why; the next start works at once.
    void refusals()
    {
        QFETCH(QRect, region);
        QFETCH(QString, twist);
        QFETCH(QString, says);
        QFETCH(QString, expected);
        QBuffer running, output, next;
        output.open(twist == "read-only" ? QIODevice::ReadOnly : QIODevice::WriteOnly);
        const auto guard = qScopeGuard([this] { stop(); });  // before the outputs go
        if (twist == "while recording")
            QVERIFY(start(&running, small, tone));
        LogCapture log;
        QVERIFY(!start(&output, region,
                       twist.startsWith("audio:") ? std::optional(AudioDevice{"", twist.mid(6), false}) : std::nullopt,
                       twist == "unlisted" ? VideoDevice() : screen));
        // The first warning is the reason.
        QVERIFY2(log.warnings().value(0).contains(says), qPrintable(log.warnings().join('\n')));
        stop();  // a recording running is left alone by the refusal
        QCOMPARE(states.join(' '), expected);
        // Nothing written; closed where the output was set up.
        QVERIFY(output.data().isEmpty());
        QCOMPARE(output.isOpen(), !expected.endsWith("Stopped@start"));
        init();
        QVERIFY(start(&next, small, tone));
        stop();
        QCOMPARE(states.join(' '), startStop);
    }

    void sourceGone_data()
    {
        QTest::addColumn<bool>("display");
        QTest::addColumn<bool>("startAgain");
        QTest::newRow("sound: a stop meeting its end sees a third Stopped") << false << false;
        QTest::newRow("sound: its late word leaves a new recording alone") << false << true;
        QTest::newRow("display: the video part ends alone, the rest goes on") << true << false;
    }

    // The sound's source or the display goes away, and the host stops before
    // it hears of it. What was written before plays.
    void sourceGone()
    {
        QFETCH(bool, display);
        QFETCH(bool, startAgain);
        QBuffer output, next;
        QProcess xvfb;
        const QByteArray harnessDisplay = qgetenv("DISPLAY");
        if (display) {
            xvfb.start("Xvfb", {"-displayfd", "1", "-screen", "0", "1920x1080x24", "-nolisten", "tcp"});
            QVERIFY(xvfb.waitForReadyRead(10000));
            qputenv("DISPLAY", ":" + xvfb.readLine().trimmed());
        }
        const QString module = display ? "" : loadNullSink("gone");
        const auto guard = qScopeGuard([this] { stop(); });
        LogCapture log;
        const bool started = start(&output, small, display ? std::nullopt : std::optional(goneSource));
        qputenv("DISPLAY", harnessDisplay);
        QVERIFY(started);
        QTRY_VERIFY_WITH_TIMEOUT(ticks.size() >= 10, longWait);
        if (display)
            xvfb.kill();
        else
            pactl({"unload-module", module});
        // No event may run before the stop: the worker's end is then on its way.
        for (QDeadlineTimer deadline(longWait); !log.warned(display ? "Error reading frame" : "is gone") && !deadline.hasExpired();)
            QThread::msleep(10);
        QCOMPARE(states.size(), 1);
        const auto before = reel->recordedTime();
        QTRY_VERIFY_WITH_TIMEOUT(!display || reel->recordedTime() >= before + std::chrono::milliseconds(400), longWait);
        stop();
        if (startAgain)
            QVERIFY2(start(&next, small, tone), qPrintable(log.warnings().join('\n')));
        QTRY_VERIFY_WITH_TIMEOUT(states.size() >= (display ? 3 : 4), longWait);
        QTest::qWait(500);  // and anything else queued
        QCOMPARE(states.join(' '), startStop + (display ? "" : startAgain ? " Started@start" : " Stopped@loop"));
        const QString found = contents(MediaProbe::fromData(output.data()));
        QVERIFY2(found.startsWith("h264 320x240"), qPrintable(found));
        QVERIFY(!startAgain || reel->recordedTime().count() > 0);
    }

    // Many in a row (SCREENREEL_STRESS_COUNT, default 40), some with sound,
    // some ended by their source going away, some whose preview is destroyed
    // midway, each begun right after the one before.
    // The first is the whole screen, long enough to watch its time rise, of a
    // record that outlived its window: it still names the screen, which is
    // what is recorded (reading the window would be a fault). The last ends
    // with the plug-in destroyed.
    void recordings()
    {
        const int count = qEnvironmentVariable("SCREENREEL_STRESS_COUNT", "40").toInt();
        QRandomGenerator random(20261122);
        for (int i = 0; i < count; ++i) {
            const bool sound = i < 2 || random.bounded(3) == 0;
            const bool gone = i == 1 || (i > 1 && sound && random.bounded(3) == 0);
            const bool preview = i == 0 || random.bounded(4) == 0;
            const int ms = int(random.bounded(301));
            const QString end = gone ? "loop" : i == count - 1 ? "delete" : "stop";
            const QRect region = i == 0 ? QRect(QPoint(), screen.geometry.size().toSize()) : small;
            VideoDevice record = screen;
            if (i == 0) {
                QWindow closed;
                closed.setTitle("Closed soon");
                closed.show();
                for (const VideoDevice& device : reel->videoDevices())
                    record = device.name == closed.title() ? device : record;
                QVERIFY(record.window == &closed);
            }
            const QString what = QString("recording %1 (%2 ms, sound %3, preview destroyed %4, ended in %5): ")
                                     .arg(i).arg(ms).arg(sound).arg(preview).arg(end);
            const QString module = gone ? loadNullSink("gone") : "";
            auto host = std::make_unique<QWidget>();
            if (preview)
                ui->createView(new QVBoxLayout(host.get()), true);
            QBuffer output;
            const auto guard = qScopeGuard([this] { stop(); });
            init();
            QVERIFY2(start(&output, region, sound ? std::optional(gone ? goneSource : tone) : std::nullopt, record),
                     qPrintable(what));
            QTest::qWait(ms / 2);
            host.reset();
            if (i == 0)
                QTRY_VERIFY_WITH_TIMEOUT(ticks.size() >= 10, longWait);
            QTest::qWait(ms - ms / 2);
            phase = end;
            const bool pictured = reel->recordedTime().count() > 0;
            if (gone)
                pactl({"unload-module", module});
            else if (end == "delete")
                delete reel;
            else
                reel->stop();
            phase = "loop";
            if (end == "delete")
                reel = nullptr;
            QTRY_VERIFY_WITH_TIMEOUT(states.size() >= 3, longWait);
            QCOMPARE(what + states.join(' '), what + QString("Started@start Stopped@%1 Stopped@%1").arg(end));
            QVERIFY2(std::is_sorted(ticks.begin(), ticks.end()) && (i > 0 || ticks.last() > ticks.first()),
                     qPrintable(what + "time went back"));
            QVERIFY2(!output.isOpen(), qPrintable(what + "output left open"));
            // Sound comes a little late: a short recording may have none yet,
            // and one ended before its first picture was encoded has nothing.
            const QString video = QString("h264 %1x%2").arg(region.width()).arg(region.height());
            const QString found = contents(MediaProbe::fromData(output.data()));
            QVERIFY2(found == video + ", aac" ? sound : found == video ? !sound || i > 0 : found.isEmpty() && !pictured,
                     qPrintable(what + found));
            QTRY_COMPARE_WITH_TIMEOUT(workerThreads(), 0, longWait);
        }
    }
};

QTEST_MAIN(RecordingTest)
#include "RecordingTest.moc"
