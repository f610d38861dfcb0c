// Runs recordings the way a host does: through the loaded module and its two
// interfaces, on a real display and sound server, and reads back what was
// written.

#include "Probe.h"
#include "interface/OpaqueUI.h"
#include "interface/ScreenReel.h"

#include <QBuffer>
#include <QDir>
#include <QFileInfo>
#include <QLayout>
#include <QPluginLoader>
#include <QPointer>
#include <QProcess>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QThread>
#include <QVBoxLayout>
#include <QWidget>
#include <QtTest>

#include <atomic>

using orvane::plugin::interface::AudioDevice;
using orvane::plugin::interface::OpaqueUI;
using orvane::plugin::interface::ScreenReel;
using orvane::plugin::interface::VideoDevice;
using State = ScreenReel::State;

namespace {

constexpr int longWait = 60000;

// Seen on the worker thread when the audio input is gone; the abort follows.
std::atomic<int> readFailures{0};
QtMessageHandler testHandler = nullptr;

void countReadFailures(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (text.startsWith(QLatin1String("Error reading frame")))
        ++readFailures;
    testHandler(type, context, text);
}

// The names of the threads of this process that the recording runs.
QStringList workerThreads()
{
    static const QStringList names{"VideoWorker", "AudioWorker", "Muxer"};
    QStringList found;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QFileInfo& task : tasks.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(task.filePath() + QStringLiteral("/comm"));
        if (!comm.open(QIODevice::ReadOnly))
            continue;
        const QString name = QString::fromLocal8Bit(comm.readAll()).trimmed();
        if (names.contains(name))
            found << name;
    }
    found.sort();
    return found;
}

QString pactl(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    process.waitForFinished(30000);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

// A second way into the sound server, for the recording alone. Cutting it
// takes the recording's input away under it; the server's own rescue of
// streams from a removed source would only move the input elsewhere.
struct CuttableConnection
{
    CuttableConnection()
    {
        socket = dir.filePath(QStringLiteral("native"));
        module = pactl({QStringLiteral("load-module"), QStringLiteral("module-native-protocol-unix"),
                        QStringLiteral("socket=") + socket, QStringLiteral("auth-anonymous=1")});
    }
    ~CuttableConnection() { cut(); }
    // Inputs opened within `open` talk through this connection.
    template<typename Open>
    bool through(Open open)
    {
        const QByteArray server = qgetenv("PULSE_SERVER");
        qputenv("PULSE_SERVER", "unix:" + socket.toLocal8Bit());
        const bool result = open();
        qputenv("PULSE_SERVER", server);
        return result;
    }
    void cut()
    {
        if (!module.isEmpty())
            pactl({QStringLiteral("unload-module"), module});
        module.clear();
    }

    QTemporaryDir dir;
    QString socket;
    QString module;
};

} // namespace

class RecordingTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanupTestCase();

    void recordAndStop_data();
    void recordAndStop();
    void refusals_data();
    void refusals();
    void endFromInside_data();
    void endFromInside();
    void previewGoesAway();
    void pluginGoesAway();

private:
    // Each signal as "State@phase". A Stopped seen while recordedTime still
    // reports a recording, or a Started seen while a worker thread already
    // runs, gets a "!" so that the order of start and teardown shows.
    void note(State state);
    bool startInto(QIODevice* output, const QRect& region, const std::optional<AudioDevice>& audio);
    // Stops, and gives every signal seen so far.
    QStringList stop();
    bool waitForTicks(int count);
    // Declared after a test's outputs: a failed test leaves no recording
    // that writes into an output already gone.
    auto stopOnExit()
    {
        return qScopeGuard([this] {
            if (reel)
                reel->stop();
        });
    }
    QRect wholeScreen() const;

    QPluginLoader loader;
    ScreenReel* reel = nullptr;
    OpaqueUI* ui = nullptr;
    QWidget window;
    VideoDevice screen;
    AudioDevice tone;
    QString phase;
    QStringList states;
    QList<qint64> ticks;
};

void RecordingTest::initTestCase()
{
    testHandler = qInstallMessageHandler(countReadFailures);
    loader.setFileName(QString::fromLocal8Bit(qgetenv("SCREENREEL_PLUGIN")));
    QVERIFY2(loader.load(), qPrintable(loader.errorString()));

    window.setWindowTitle(QStringLiteral("Recording test"));
    new QVBoxLayout(&window);
    window.resize(400, 300);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
}

void RecordingTest::cleanupTestCase()
{
    qInstallMessageHandler(testHandler);
}

void RecordingTest::init()
{
    // A test may have destroyed the instance; the loader then makes a new one.
    QObject* instance = loader.instance();
    QVERIFY(instance);
    if (reel != qobject_cast<ScreenReel*>(instance)) {
        reel = qobject_cast<ScreenReel*>(instance);
        ui = qobject_cast<OpaqueUI*>(instance);
        QVERIFY(reel && ui);
        connect(reel, &ScreenReel::stateChanged, this, &RecordingTest::note, Qt::DirectConnection);
        connect(reel, &ScreenReel::recorded, this,
                [this](std::chrono::milliseconds time) { ticks << time.count(); });
    }
    bool found = false;
    for (const VideoDevice& device : reel->videoDevices()) {
        if (device.name == window.windowTitle()) {
            screen = device;
            found = true;
        }
    }
    QVERIFY2(found, "the test window is not listed");
    found = false;
    for (const AudioDevice& device : reel->audioDevices()) {
        if (device.name == QLatin1String("reel.monitor")) {
            tone = device;
            found = true;
        }
    }
    QVERIFY2(found, "reel.monitor is not listed");
    states.clear();
    ticks.clear();
    phase = QStringLiteral("loop");
}

void RecordingTest::note(State state)
{
    QString text = state == State::Started ? QStringLiteral("Started@") : QStringLiteral("Stopped@");
    text += phase;
    if (state == State::Stopped ? reel->recordedTime().count() != 0 : !workerThreads().isEmpty())
        text += QLatin1Char('!');
    states << text;
}

bool RecordingTest::startInto(QIODevice* output, const QRect& region,
                              const std::optional<AudioDevice>& audio)
{
    phase = QStringLiteral("start");
    const bool started = reel->start(screen, region, audio, output);
    phase = QStringLiteral("loop");
    return started;
}

QStringList RecordingTest::stop()
{
    phase = QStringLiteral("stop");
    reel->stop();
    phase = QStringLiteral("loop");
    return states;
}

bool RecordingTest::waitForTicks(int count)
{
    const int goal = ticks.size() + count;
    return QTest::qWaitFor([&] { return ticks.size() >= goal; }, longWait);
}

QRect RecordingTest::wholeScreen() const
{
    return QRect(QPoint(0, 0), screen.geometry.size().toSize());
}

void RecordingTest::recordAndStop_data()
{
    QTest::addColumn<QRect>("region");
    QTest::addColumn<bool>("sound");
    QTest::addColumn<bool>("inMemory");

    QTest::newRow("a region without sound, to a file") << QRect(100, 50, 640, 360) << false << false;
    QTest::newRow("a region with sound, to memory") << QRect(0, 0, 320, 240) << true << true;
    QTest::newRow("exactly the whole screen, with sound") << QRect() << true << false;
}

void RecordingTest::recordAndStop()
{
    QFETCH(QRect, region);
    QFETCH(bool, sound);
    QFETCH(bool, inMemory);
    if (region.isNull())
        region = wholeScreen();

    QTemporaryFile file;
    QVERIFY(file.open());
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    QIODevice* output = inMemory ? static_cast<QIODevice*>(&buffer) : &file;
    const auto guard = stopOnExit();

    QVERIFY(startInto(output, region, sound ? std::optional(tone) : std::nullopt));
    QCOMPARE(states, QStringList{"Started@start"});
    QVERIFY(waitForTicks(10));
    QVERIFY(reel->recordedTime().count() > 0);
    QCOMPARE(workerThreads(), sound ? QStringList({"AudioWorker", "Muxer", "VideoWorker"})
                                    : QStringList({"Muxer", "VideoWorker"}));
    for (int i = 1; i < ticks.size(); ++i)
        QVERIFY2(ticks.at(i) >= ticks.at(i - 1), "recorded time went back");
    QVERIFY(ticks.last() > ticks.first());

    QCOMPARE(stop(), QStringList({"Started@start", "Stopped@stop", "Stopped@stop"}));
    QVERIFY(!output->isOpen());

    // The recording goes on no longer than its stop.
    const int after = ticks.size();
    QTest::qWait(300);
    QCOMPARE(ticks.size(), after);
    QCOMPARE(states.size(), 3);
    QCOMPARE(workerThreads(), QStringList());

    if (inMemory) {
        QVERIFY(file.write(buffer.data()) == buffer.size());
        file.flush();
    }
    const probe::Media media = probe::probe(file.fileName());
    QVERIFY2(media.readable, qPrintable(media.error));
    QVERIFY(media.format.contains(QLatin1String("mp4")));
    QCOMPARE(media.codecs(), sound ? QStringList({"h264", "aac"}) : QStringList{"h264"});
    const probe::Stream* video = media.stream(QStringLiteral("h264"));
    QCOMPARE(QSize(video->width, video->height), region.size());
    QVERIFY(video->frames > 0);
    if (sound)
        QVERIFY(media.stream(QStringLiteral("aac"))->frames > 0);
}

void RecordingTest::refusals_data()
{
    QTest::addColumn<QSize>("grow");     // added to the screen's size; empty: use `region`
    QTest::addColumn<QRect>("region");
    QTest::addColumn<QString>("audio");
    QTest::addColumn<bool>("whileRecording");
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("expected");

    const QStringList none;
    const QStringList startedAndEnded{"Started@start", "Stopped@start", "Stopped@start"};
    QTest::newRow("a second start while recording")
        << QSize() << QRect(0, 0, 320, 240) << QString() << true << none << none;
    QTest::newRow("one pixel too wide")
        << QSize(1, 0) << QRect() << QString() << false << QStringList{"invalid region size"} << none;
    QTest::newRow("one pixel too tall")
        << QSize(0, 1) << QRect() << QString() << false << QStringList{"invalid region size"} << none;
    QTest::newRow("a size the encoder refuses")
        << QSize() << QRect(0, 0, 101, 101) << QString() << false
        << QStringList{"could not open video codec:  \"Generic error in an external library\"",
                       "Failed to init muxer video"}
        << startedAndEnded;
    QTest::newRow("an audio input that does not exist")
        << QSize() << QRect(0, 0, 320, 240) << QStringLiteral("nosuch") << false
        << QStringList{"unable to open device [ \"nosuch\" ]",
                       "Failed to initialize the resampling context:  \"Invalid argument\"",
                       "Failed to init muxer audio"}
        << startedAndEnded;
}

void RecordingTest::refusals()
{
    QFETCH(QSize, grow);
    QFETCH(QRect, region);
    QFETCH(QString, audio);
    QFETCH(bool, whileRecording);
    QFETCH(QStringList, messages);
    QFETCH(QStringList, expected);
    if (grow.isValid())
        region = QRect(QPoint(0, 0), wholeScreen().size() + grow);

    QTemporaryFile running;
    QVERIFY(running.open());
    if (whileRecording) {
        QVERIFY(startInto(&running, QRect(0, 0, 320, 240), tone));
        QVERIFY(waitForTicks(3));
        states.clear();
    }

    QTemporaryFile file;
    QVERIFY(file.open());
    QTemporaryFile next;
    QVERIFY(next.open());
    const auto guard = stopOnExit();
    for (const QString& message : qAsConst(messages))
        QTest::ignoreMessage(QtWarningMsg, qPrintable(message));
    std::optional<AudioDevice> device;
    if (!audio.isEmpty())
        device = AudioDevice{QByteArray(), audio, false};
    QVERIFY(!startInto(&file, region, device));
    QCOMPARE(states, expected);
    if (!whileRecording)
        QCOMPARE(reel->recordedTime().count(), 0);

    if (whileRecording) {
        // The refused start left the running recording alone.
        QVERIFY(waitForTicks(3));
        QVERIFY(reel->recordedTime().count() > 0);
        QCOMPARE(stop(), QStringList({"Stopped@stop", "Stopped@stop"}));
        const probe::Media media = probe::probe(running.fileName());
        QVERIFY2(media.readable, qPrintable(media.error));
    }

    // And the next start works at once.
    states.clear();
    QVERIFY(startInto(&next, QRect(0, 0, 320, 240), tone));
    QVERIFY(waitForTicks(3));
    QCOMPARE(stop(), QStringList({"Started@start", "Stopped@stop", "Stopped@stop"}));
}

enum class Then { WaitForIt, StopWhileIdleLater, StopAndStartAgain };
Q_DECLARE_METATYPE(Then)

void RecordingTest::endFromInside_data()
{
    QTest::addColumn<Then>("then");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("the host hears of it later")
        << Then::WaitForIt << QStringList{"Started@start", "Stopped@loop", "Stopped@loop"};
    QTest::newRow("a stop meeting it sees a third Stopped")
        << Then::StopWhileIdleLater
        << QStringList{"Started@start", "Stopped@stop", "Stopped@stop", "Stopped@loop"};
    QTest::newRow("its late word leaves the next recording alone")
        << Then::StopAndStartAgain
        << QStringList{"Started@start", "Stopped@stop", "Stopped@stop", "Started@start"};
}

void RecordingTest::endFromInside()
{
    QFETCH(Then, then);
    QFETCH(QStringList, expected);

    CuttableConnection connection;
    QVERIFY(!connection.module.isEmpty());
    QTemporaryFile file;
    QVERIFY(file.open());
    QTemporaryFile next;
    QVERIFY(next.open());
    const auto guard = stopOnExit();
    QVERIFY(connection.through([&] { return startInto(&file, QRect(0, 0, 320, 240), tone); }));
    QVERIFY(waitForTicks(10));

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^Error reading frame")));
    readFailures = 0;
    connection.cut();
    if (then == Then::WaitForIt) {
        QTRY_COMPARE_WITH_TIMEOUT(states.size(), 3, longWait);
    } else {
        // No event may run before the stop: the worker's end is on its way
        // to the event loop when the stop arrives.
        QDeadlineTimer deadline(longWait);
        while (readFailures == 0 && !deadline.hasExpired())
            QThread::msleep(10);
        QCOMPARE(int(readFailures), 1);
        QCOMPARE(states.size(), 1);
        stop();
        if (then == Then::StopAndStartAgain)
            QVERIFY(startInto(&next, QRect(0, 0, 320, 240), tone));
        if (then == Then::StopWhileIdleLater) {
            QTRY_COMPARE_WITH_TIMEOUT(states.size(), 4, longWait);
        } else {
            // Enough ticks for every posted event to have been delivered.
            QVERIFY(waitForTicks(10));
            QVERIFY(reel->recordedTime().count() > 0);
        }
    }
    QCOMPARE(states, expected);

    const probe::Media media = probe::probe(file.fileName());
    QVERIFY2(media.readable, qPrintable(media.error));
    QVERIFY(media.stream(QStringLiteral("h264")));
    QVERIFY(media.stream(QStringLiteral("h264"))->frames > 0);

    if (then == Then::StopAndStartAgain) {
        QCOMPARE(stop(), QStringList(expected + QStringList{"Stopped@stop", "Stopped@stop"}));
        QVERIFY2(probe::probe(next.fileName()).readable, "the next recording was spoilt");
    } else {
        states.clear();
        QVERIFY(startInto(&next, QRect(0, 0, 320, 240), tone));
        QVERIFY(waitForTicks(3));
        QCOMPARE(stop(), QStringList({"Started@start", "Stopped@stop", "Stopped@stop"}));
    }
}

void RecordingTest::previewGoesAway()
{
    ui->createView(window.layout(), true);
    QCOMPARE(window.layout()->count(), 1);
    QPointer<QWidget> view = window.layout()->itemAt(0)->widget();
    QVERIFY(view);

    QTemporaryFile file;
    QVERIFY(file.open());
    QTemporaryFile next;
    QVERIFY(next.open());
    const auto guard = stopOnExit();
    QVERIFY(startInto(&file, QRect(0, 0, 320, 240), tone));
    QCOMPARE(view->minimumSize(), (screen.geometry.size() * 0.25).toSize());
    QVERIFY(waitForTicks(5));
    delete view;

    const qint64 before = reel->recordedTime().count();
    QVERIFY(waitForTicks(10));
    QVERIFY(reel->recordedTime().count() > before);
    QCOMPARE(stop(), QStringList({"Started@start", "Stopped@stop", "Stopped@stop"}));
    const probe::Media media = probe::probe(file.fileName());
    QVERIFY2(media.readable, qPrintable(media.error));
    QVERIFY(media.stream(QStringLiteral("h264"))->frames > 0);

    // Without a preview the next recording runs all the same.
    states.clear();
    QVERIFY(startInto(&next, QRect(0, 0, 320, 240), std::nullopt));
    QVERIFY(waitForTicks(3));
    QCOMPARE(stop(), QStringList({"Started@start", "Stopped@stop", "Stopped@stop"}));
}

void RecordingTest::pluginGoesAway()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    const auto guard = stopOnExit();
    QVERIFY(startInto(&file, QRect(0, 0, 320, 240), tone));
    QVERIFY(waitForTicks(10));

    phase = QStringLiteral("delete");
    delete reel;
    reel = nullptr;
    phase = QStringLiteral("loop");
    QCOMPARE(states, QStringList({"Started@start", "Stopped@delete", "Stopped@delete"}));
    QVERIFY(!file.isOpen());

    const probe::Media media = probe::probe(file.fileName());
    QVERIFY2(media.readable, qPrintable(media.error));
    QCOMPARE(media.codecs(), QStringList({"h264", "aac"}));
    QVERIFY(media.stream(QStringLiteral("h264"))->frames > 0);
    QVERIFY(media.stream(QStringLiteral("aac"))->frames > 0);
}

QTEST_MAIN(RecordingTest)
#include "RecordingTest.moc"
