// The audio worker against a real sound server, whose null sink "reel"
// plays a tone: what it hands on, and how it ends.

#include "capture/AudioWorker.h"
#include "capture/Platform.h"
#include "pipeline/Pipeline.h"
#include "support/FakeSource.h"
#include "support/LogCapture.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QThread>
#include <QtTest>

using namespace orvane;
using namespace orvane::test;

namespace {

constexpr int longWait = 30000;

// Counts the chunks and samples it is given, chunks whose size in bytes is
// not that of their samples, and chunks whose capture time does not follow
// on from the one before (48 kHz): the sound server's own stamps swing by
// tenths of a second at first.
class ChunkTarget : public Target
{
public:
    using Target::Target;
    bool start() override { return true; }
    void stop() override {}
    std::chrono::milliseconds recordedTime() override { return {}; }
    void writeVideo(const QImage&, CaptureTime) override {}
    void writeAudio(const QByteArray& data, qint64 sampleCount, CaptureTime captured) override
    {
        misfits += data.size() != sampleCount * 4;
        if (chunks > 0)
            jumps += qAbs(captured - due) > 15000;
        due = captured + sampleCount * 1000000 / 48000;
        samples += sampleCount;
        ++chunks;
    }

    std::atomic<int> chunks{0}, misfits{0}, jumps{0};
    std::atomic<qint64> samples{0};
    CaptureTime due = 0;  // the audio thread's
};

// A sound device recorded beside a silent video part.
struct Recording
{
    explicit Recording(const QString& device)
    {
        pipeline->audio = std::make_unique<AudioWorker>(plugin::interface::AudioDevice{"0", device, true},
                                                        pipeline.get());
        pipeline->video = std::make_unique<FakeSource>(pipeline.get());
        pipeline->target.reset(target = new ChunkTarget(pipeline.get()));
        QObject::connect(pipeline.get(), &Pipeline::stopedChanged, [this] { ++stopped; });
    }
    bool running() { return pipeline->findChild<QThread*>("AudioWorker")->isRunning(); }

    std::unique_ptr<Pipeline> pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
    ChunkTarget* target = nullptr;
    // Counted on whichever thread ends the recording.
    std::atomic<int> stopped{0};
};

QByteArray pactl(const QStringList& arguments)
{
    QProcess process;
    process.start("pactl", arguments);
    process.waitForFinished(longWait);
    return process.readAllStandardOutput();
}

bool readFailed(const LogCapture& log)
{
    return log.texts(QtWarningMsg).join('\n').contains("Error reading frame");
}

} // namespace

class AudioWorkerTest : public QObject
{
    Q_OBJECT

private slots:
    void deliversTheDeviceSamples();
    void missingDevice();
    void lostStreamAborts();
    void stopWhileSuspended();
    void openWhileSuspended();
};

void AudioWorkerTest::deliversTheDeviceSamples()
{
    Recording r("reel.monitor");
    const AudioFormat format = r.pipeline->audio->audioFormat();
    QCOMPARE(QString("%1 %2 %3").arg(format.sampleFormat).arg(format.sampleRate).arg(format.channels),
             QString("%1 48000 2").arg(AV_SAMPLE_FMT_S16));
    QVERIFY(r.pipeline->start());
    QTRY_VERIFY_WITH_TIMEOUT(r.target->samples >= 2 * 48000, longWait);
    r.pipeline->stop();
    QVERIFY(!r.running());
    QCOMPARE(r.target->misfits, 0);
    QCOMPARE(r.target->jumps, 0);
    // One chunk is taken a 40 ms tick: shorter ones would pile up.
    QVERIFY2(r.target->samples >= r.target->chunks * 1920, qPrintable(QString::number(r.target->chunks)));
}

void AudioWorkerTest::missingDevice()
{
    QTest::ignoreMessage(QtWarningMsg, "unable to open device [ \"nosuch\" ]");
    Recording r("nosuch");
    QVERIFY(r.pipeline->audio->audioFormat() == AudioFormat{});
    QVERIFY(!r.pipeline->start());
    QCOMPARE(r.stopped.load(), 1);
    QVERIFY(!r.running());
    QCOMPARE(r.target->chunks, 0);
}

void AudioWorkerTest::lostStreamAborts()
{
    Recording r("reel.monitor");
    LogCapture log;
    QVERIFY(r.pipeline->start());
    QTRY_VERIFY_WITH_TIMEOUT(r.target->chunks > 0, longWait);
    // The server ends the stream, as when it goes down. (Removing the source
    // would not: the server moves its streams elsewhere.)
    const QJsonArray streams = QJsonDocument::fromJson(pactl({"-f", "json", "list", "source-outputs"})).array();
    QCOMPARE(streams.size(), 1);
    const QString name = streams.at(0)[QLatin1String("properties")][QLatin1String("media.name")].toString();
    platform::AudioStreamWatch server(name.toUtf8());
    server.unblock();
    QTRY_COMPARE_WITH_TIMEOUT(r.stopped.load(), 1, longWait);
    QTRY_VERIFY_WITH_TIMEOUT(!r.running(), longWait);
    QVERIFY(readFailed(log));
}

// A suspended sink's monitor delivers nothing while its stream stays. (A
// stop that hangs here ends in the test's time limit.)
void AudioWorkerTest::stopWhileSuspended()
{
    Recording r("reel.monitor");
    LogCapture log;
    QVERIFY(r.pipeline->start());
    QTRY_VERIFY_WITH_TIMEOUT(r.target->chunks > 0, longWait);
    pactl({"suspend-sink", "reel", "1"});
    QTest::qWait(1000);  // what was there is drained
    const qint64 before = r.target->samples;
    QTest::qWait(500);
    QCOMPARE(r.target->samples, before);
    r.pipeline->audio->stop();
    QVERIFY(!r.running());
    QVERIFY(!readFailed(log));
    QCOMPARE(r.stopped.load(), 0);
    pactl({"suspend-sink", "reel", "0"});
}

// One that delivers nothing from the start: the open gives up instead of
// holding its caller.
void AudioWorkerTest::openWhileSuspended()
{
    pactl({"suspend-sink", "reel", "1"});
    const auto resume = qScopeGuard([] { pactl({"suspend-sink", "reel", "0"}); });
    LogCapture log;
    Recording r("reel.monitor");
    QVERIFY(r.pipeline->audio->audioFormat() == AudioFormat{});
    QVERIFY(!r.pipeline->start());
    QVERIFY(log.texts(QtWarningMsg).contains("audio device [ \"reel.monitor\" ] delivers no sound"));
}

QTEST_GUILESS_MAIN(AudioWorkerTest)

#include "AudioWorkerTest.moc"
