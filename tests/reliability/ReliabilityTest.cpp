#include "support/LogCapture.h"
#include "support/MediaProbe.h"

#include "capture/VideoWorker.h"
#include "output/Muxer.h"
#include "pipeline/Pipeline.h"
#include "plugin/Plugin.h"

#include <QBuffer>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

#include <csignal>
#include <thread>
#include <unistd.h>

using namespace orvane;
using orvane::plugin::interface::AudioDevice;
using orvane::plugin::interface::ScreenReel;
using orvane::plugin::interface::VideoDevice;
using orvane::test::LogCapture;
using orvane::test::MediaProbe;

namespace {

QString pactl(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    process.waitForFinished(10000);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

// The states a recorder reported, in order.
class States
{
public:
    explicit States(ScreenReel& reel)
    {
        connection = QObject::connect(&reel, &ScreenReel::stateChanged,
                                      [this](ScreenReel::State state) { seen.append(state); });
    }
    ~States() { QObject::disconnect(connection); }

    int size() const { return seen.size(); }
    bool isEmpty() const { return seen.isEmpty(); }
    int stopped() const { return int(seen.count(ScreenReel::State::Stopped)); }
    QString text() const
    {
        QStringList names;
        for (ScreenReel::State state : seen)
            names << (state == ScreenReel::State::Started ? "Started" : "Stopped");
        return names.join(' ');
    }

private:
    QList<ScreenReel::State> seen;
    QMetaObject::Connection connection;
};

int videoPackets(const MediaProbe& probe)
{
    const int index = probe.streamIndex(QStringLiteral("video"));
    return index < 0 ? -1 : probe.streams.at(index).packets.size();
}

// An X server of the test's own, so that it can be taken away mid-recording.
class PrivateDisplay
{
public:
    PrivateDisplay()
    {
        server.start(QStringLiteral("Xvfb"), {QStringLiteral("-displayfd"), QStringLiteral("1"),
                                               QStringLiteral("-screen"), QStringLiteral("0"),
                                               QStringLiteral("640x480x24"), QStringLiteral("-nolisten"),
                                               QStringLiteral("tcp")});
        if (server.waitForReadyRead(10000))
            name = ":" + server.readLine().trimmed();
    }
    ~PrivateDisplay() { end(); }
    void end()
    {
        if (server.state() != QProcess::NotRunning) {
            server.kill();
            server.waitForFinished(10000);
        }
    }

    QProcess server;
    QByteArray name;
};

} // namespace

class ReliabilityTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void startStopStress();
    void badInput_data();
    void badInput();
    void displayGoesAway();
    void readerGoesAway();
    void killedHostLeavesPlayableFragments();

private:
    VideoDevice screen();

    QWindow anchor;
};

void ReliabilityTest::initTestCase()
{
    // A reader that goes away must give a failed write, not end the process.
    std::signal(SIGPIPE, SIG_IGN);
    anchor.setTitle(QStringLiteral("reliability"));
    anchor.resize(200, 100);
    anchor.show();
    QVERIFY(QTest::qWaitForWindowExposed(&anchor));
}

VideoDevice ReliabilityTest::screen()
{
    Plugin plugin;
    const std::vector<VideoDevice> devices = plugin.videoDevices();
    return devices.empty() ? VideoDevice() : devices.front();
}

void ReliabilityTest::startStopStress()
{
    const int count = qEnvironmentVariableIsSet("SCREENREEL_STRESS_COUNT")
                          ? qEnvironmentVariableIntValue("SCREENREEL_STRESS_COUNT")
                          : 40;
    QRandomGenerator random(20261122);
    Plugin plugin;
    const VideoDevice video = plugin.videoDevices().front();
    LogCapture quiet;  // the many per-recording lines of FFmpeg and of aborts

    for (int i = 0; i < count; ++i) {
        const bool withAudio = random.bounded(3) == 0;
        const bool endInside = withAudio && random.bounded(3) == 0;
        const bool dropPreview = random.bounded(4) == 0;
        const int lengthMs = int(random.bounded(301));
        const QString what = QStringLiteral("recording %1 (%2 ms%3%4%5)")
                                 .arg(i)
                                 .arg(lengthMs)
                                 .arg(withAudio ? ", sound" : "")
                                 .arg(endInside ? ", source removed" : "")
                                 .arg(dropPreview ? ", preview destroyed" : "");

        QString module;
        std::optional<AudioDevice> audio;
        if (endInside) {
            const QString sink = QStringLiteral("stress%1").arg(i);
            module = pactl({QStringLiteral("load-module"), QStringLiteral("module-null-sink"),
                            QStringLiteral("sink_name=") + sink});
            audio = AudioDevice{"0", sink + QStringLiteral(".monitor"), true};
        } else if (withAudio) {
            audio = AudioDevice{"0", QStringLiteral("reel.monitor"), true};
        }
        auto host = std::make_unique<QWidget>();
        if (dropPreview) {
            auto* layout = new QVBoxLayout(host.get());
            plugin.createView(layout, true);
            host->show();
        }

        QBuffer output;
        output.open(QIODevice::WriteOnly);
        States states(plugin);
        QVERIFY2(plugin.start(video, QRect(0, 0, 320, 240), audio, &output), qPrintable(what));
        QTest::qWait(lengthMs / 2);
        if (dropPreview)
            host.reset();
        QTest::qWait(lengthMs - lengthMs / 2);
        if (endInside) {
            pactl({QStringLiteral("unload-module"), module});
            QTRY_VERIFY2_WITH_TIMEOUT(states.stopped() >= 2, qPrintable(what), 20000);
        } else {
            plugin.stop();
            QVERIFY2(states.stopped() == 2, qPrintable(what + ": " + states.text()));
        }
        const MediaProbe probe = MediaProbe::fromData(output.data());
        QVERIFY2(probe.isValid(), qPrintable(what + ": " + probe.error));
        QVERIFY2(videoPackets(probe) >= 0, qPrintable(what + ": no video track"));
    }
}

void ReliabilityTest::badInput_data()
{
    QTest::addColumn<QRect>("region");
    QTest::addColumn<bool>("listedScreen");
    QTest::addColumn<QString>("audio");
    QTest::addColumn<bool>("readOnly");
    QTest::addColumn<bool>("started");

    QTest::newRow("empty region") << QRect(0, 0, 0, 0) << true << QString() << false << false;
    QTest::newRow("negative region") << QRect(0, 0, -16, -16) << true << QString() << false << false;
    QTest::newRow("odd region") << QRect(0, 0, 101, 75) << true << QString() << false << false;
    QTest::newRow("region too large") << QRect(0, 0, 1921, 1080) << true << QString() << false << false;
    QTest::newRow("screen never listed") << QRect(0, 0, 64, 64) << false << QString() << false << false;
    QTest::newRow("unknown audio input") << QRect(0, 0, 64, 64) << true << "nosuch" << false << false;
    QTest::newRow("audio input without a name") << QRect(0, 0, 64, 64) << true << "" << false << false;
    QTest::newRow("read-only output") << QRect(0, 0, 64, 64) << true << QString() << true << false;
}

void ReliabilityTest::badInput()
{
    QFETCH(QRect, region);
    QFETCH(bool, listedScreen);
    QFETCH(QString, audio);
    QFETCH(bool, readOnly);
    QFETCH(bool, started);

    // Outlive the plug-in, which finishes what it records on them.
    QBuffer output;
    output.open(readOnly ? QIODevice::ReadOnly : QIODevice::WriteOnly);
    QBuffer next;
    Plugin plugin;
    const VideoDevice video = listedScreen ? plugin.videoDevices().front() : VideoDevice();
    std::optional<AudioDevice> audioDevice;
    if (!audio.isNull())
        audioDevice = AudioDevice{"0", audio, true};

    LogCapture log;
    States states(plugin);
    QCOMPARE(plugin.start(video, region, audioDevice, &output), started);
    const QStringList warnings = log.texts(QtWarningMsg);
    QVERIFY2(!warnings.isEmpty(), "a refusal says why");
    // Either refused before anything was built, or built, failed and ended.
    QVERIFY2(states.isEmpty() || (states.size() == 3 && states.stopped() == 2), qPrintable(states.text()));

    // Nothing is left behind that stands in the way of the next recording.
    next.open(QIODevice::WriteOnly);
    QVERIFY(plugin.start(plugin.videoDevices().front(), QRect(0, 0, 64, 64), std::nullopt, &next));
    plugin.stop();
    QVERIFY(MediaProbe::fromData(next.data()).isValid());
}

void ReliabilityTest::displayGoesAway()
{
    PrivateDisplay display;
    QVERIFY2(!display.name.isEmpty(), "Xvfb did not start");
    const QByteArray harnessDisplay = qgetenv("DISPLAY");
    qputenv("DISPLAY", display.name);

    VideoDevice device;
    device.screen = "0";
    device.name = QStringLiteral("private display");
    device.geometry = QRectF(0, 0, 640, 480);
    QBuffer output;
    output.open(QIODevice::WriteOnly);
    LogCapture log;
    {
        Pipeline pipeline(nullptr, nullptr);
        pipeline.video = std::make_unique<VideoWorker>(device, QRect(0, 0, 640, 480), &pipeline);
        pipeline.target = std::make_unique<Muxer>(pipeline.video->videoSize(), std::nullopt, &output, &pipeline);
        qputenv("DISPLAY", harnessDisplay);
        QSignalSpy stopped(&pipeline, &Pipeline::stopedChanged);
        QVERIFY(pipeline.start());
        QTRY_VERIFY_WITH_TIMEOUT(pipeline.recordedTime().count() >= 400, 10000);

        display.end();
        QTRY_VERIFY_WITH_TIMEOUT(log.texts(QtWarningMsg).join('\n').contains("Error reading frame"), 10000);
        // The video thread ended alone: the recording goes on with the last
        // picture until it is stopped, and nobody was told to stop.
        const auto before = pipeline.recordedTime();
        QTRY_VERIFY_WITH_TIMEOUT(pipeline.recordedTime() >= before + std::chrono::milliseconds(400), 10000);
        QVERIFY(stopped.isEmpty());
        pipeline.stop();
        QCOMPARE(stopped.size(), 1);
    }
    const MediaProbe probe = MediaProbe::fromData(output.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QVERIFY(videoPackets(probe) >= 20);
}

void ReliabilityTest::readerGoesAway()
{
    int fds[2];
    QCOMPARE(::pipe(fds), 0);
    QByteArray received;
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        char buffer[65536];
        while (reading) {
            const ssize_t n = ::read(fds[0], buffer, sizeof buffer);
            if (n <= 0)
                break;
            received.append(buffer, int(n));
        }
    });

    QFile pipe;
    Plugin plugin;
    QVERIFY(pipe.open(fds[1], QIODevice::WriteOnly, QFileDevice::AutoCloseHandle));
    QVERIFY(pipe.isSequential());
    LogCapture log;
    QVERIFY(plugin.start(plugin.videoDevices().front(), QRect(0, 0, 320, 240), std::nullopt, &pipe));
    QTest::qWait(2500);
    // The reader stops reading and closes its end: every further write fails.
    reading = false;
    QTRY_VERIFY_WITH_TIMEOUT(!reader.joinable() || (reader.join(), true), 10000);
    ::close(fds[0]);
    QTRY_VERIFY_WITH_TIMEOUT(log.texts(QtWarningMsg).join('\n').contains("Error while writing output packet"),
                             20000);
    plugin.stop();

    // What reached the reader before it went plays on its own.
    const MediaProbe probe = MediaProbe::fromData(received);
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QVERIFY2(videoPackets(probe) >= 10, qPrintable(QString::number(videoPackets(probe))));
}

void ReliabilityTest::killedHostLeavesPlayableFragments()
{
    QProcess host;
    host.start(QStringLiteral(SCREENREEL_RECORD),
               {QStringLiteral("-o"), QStringLiteral("-"), QStringLiteral("--audio"), QStringLiteral("reel.monitor"),
                QStringLiteral("--no-preview"), QStringLiteral("--region"), QStringLiteral("640x480+0+0")});
    QVERIFY(host.waitForStarted(10000));
    QByteArray received;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 4000) {
        host.waitForReadyRead(200);
        received += host.readAllStandardOutput();
    }
    host.kill();
    host.waitForFinished(10000);
    received += host.readAllStandardOutput();

    const MediaProbe probe = MediaProbe::fromData(received);
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QVERIFY2(videoPackets(probe) >= 25, qPrintable(QString::number(videoPackets(probe))));
    QVERIFY(probe.streamIndex(QStringLiteral("audio")) >= 0);
}

QTEST_MAIN(ReliabilityTest)
#include "ReliabilityTest.moc"
