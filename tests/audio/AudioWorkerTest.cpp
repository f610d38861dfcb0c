// The audio worker against a real sound server: what it reports and hands on
// while the device delivers, and how it ends when the device fails, goes away
// or falls silent.

#include "capture/AudioWorker.h"
#include "capture/Platform.h"
#include "pipeline/Pipeline.h"
#include "support/FakeSource.h"
#include "support/LogCapture.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

extern "C" {
#include <libavutil/channel_layout.h>
}

using namespace orvane;
using orvane::plugin::interface::AudioDevice;
using orvane::test::FakeSource;
using orvane::test::LogCapture;

namespace {

constexpr int longWait = 30000;
constexpr int bytesPerFrame = 4;  // s16, two channels

struct Chunk
{
    int bytes;
    qint64 sampleCount;
};

// Keeps what writeAudio is given; it has no thread of its own.
class ChunkTarget : public Target
{
public:
    using Target::Target;

    bool start() override { return true; }
    void stop() override {}
    std::chrono::milliseconds recordedTime() override { return {}; }
    void writeVideo(const QImage&) override {}
    void writeAudio(const QByteArray& samples, qint64 sampleCount) override
    {
        QMutexLocker lock(&mutex);
        if (chunks.isEmpty())
            firstChunkAfterMs = sinceStart.elapsed();
        chunks.append({int(samples.size()), sampleCount});
    }

    QVector<Chunk> taken() const
    {
        QMutexLocker lock(&mutex);
        return chunks;
    }
    qint64 samplesTaken() const
    {
        qint64 total = 0;
        for (const Chunk& chunk : taken())
            total += chunk.sampleCount;
        return total;
    }

    QElapsedTimer sinceStart;
    qint64 firstChunkAfterMs = -1;

private:
    mutable QMutex mutex;
    QVector<Chunk> chunks;
};

// One recording of a sound device with a silent video part.
struct Recording
{
    explicit Recording(const QString& deviceName)
    {
        AudioDevice device;
        device.name = deviceName;
        pipeline->audio = std::make_unique<AudioWorker>(device, pipeline.get());
        pipeline->video = std::make_unique<FakeSource>(pipeline.get());
        pipeline->target = std::make_unique<ChunkTarget>(pipeline.get());
        target = static_cast<ChunkTarget*>(pipeline->target.get());
        thread = pipeline->findChild<QThread*>(QStringLiteral("AudioWorker"));
    }

    bool start()
    {
        target->sinceStart.start();
        return pipeline->start();
    }

    // Stops the audio part from a helper thread and gives it a generous
    // time. A stop that hangs leaves everything behind, so that the test
    // fails instead of hanging.
    bool stopsInTime()
    {
        auto done = std::make_shared<std::atomic<bool>>(false);
        Source* audio = pipeline->audio.get();
        std::thread stopper([audio, done] {
            audio->stop();
            *done = true;
        });
        QElapsedTimer waited;
        waited.start();
        while (!*done && waited.elapsed() < longWait)
            QTest::qWait(20);
        if (!*done) {
            stopper.detach();
            (void)pipeline.release();
            return false;
        }
        stopper.join();
        return true;
    }

    std::unique_ptr<Pipeline> pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
    ChunkTarget* target = nullptr;
    QThread* thread = nullptr;
};

QString pactl(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("pactl"), arguments);
    process.waitForFinished(longWait);
    return QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
}

// Names of the recording streams the server has.
QStringList recordingStreams()
{
    QStringList names;
    const QJsonArray outputs =
        QJsonDocument::fromJson(pactl({QStringLiteral("-f"), QStringLiteral("json"), QStringLiteral("list"),
                                       QStringLiteral("source-outputs")})
                                    .toUtf8())
            .array();
    for (const QJsonValue& output : outputs)
        names << output[QLatin1String("properties")][QLatin1String("media.name")].toString();
    return names;
}

// Runs `undo` when the scope ends, whatever the test did.
struct Undo
{
    std::function<void()> undo;
    ~Undo()
    {
        if (undo)
            undo();
    }
};

bool hasReadError(const LogCapture& log)
{
    for (const QString& text : log.texts(QtWarningMsg)) {
        if (text.startsWith(QLatin1String("Error reading frame")))
            return true;
    }
    return false;
}

} // namespace

class AudioWorkerTest : public QObject
{
    Q_OBJECT

private slots:
    void deliversTheDeviceSamples();
    void missingDeviceFailsTheSetUp();
    void lostStreamEndsTheRecording();
    void stopWhileTheDeviceIsSilent_data();
    void stopWhileTheDeviceIsSilent();
};

void AudioWorkerTest::deliversTheDeviceSamples()
{
    Recording recording(QStringLiteral("reel.monitor"));
    const AudioFormat format = recording.pipeline->audio->audioFormat();
    QCOMPARE(format.sampleFormat, AV_SAMPLE_FMT_S16);
    QCOMPARE(format.sampleRate, 48000);
    QCOMPARE(format.channels, 2);
    QCOMPARE(format.channelLayout, uint64_t(AV_CH_LAYOUT_STEREO));
    QVERIFY(recording.pipeline->audio->videoSize() == QSize(0, 0));

    QVERIFY(recording.start());
    // Two seconds of sound, then a stop while the device delivers.
    QTRY_VERIFY_WITH_TIMEOUT(recording.target->samplesTaken() >= 2 * 48000, longWait);
    QVERIFY(recording.stopsInTime());
    QVERIFY(!recording.thread->isRunning());

    const QVector<Chunk> chunks = recording.target->taken();
    qint64 total = 0;
    qint64 smallest = chunks.first().sampleCount;
    qint64 largest = 0;
    for (const Chunk& chunk : chunks) {
        QCOMPARE(chunk.sampleCount * bytesPerFrame, qint64(chunk.bytes));
        total += chunk.sampleCount;
        smallest = qMin(smallest, chunk.sampleCount);
        largest = qMax(largest, chunk.sampleCount);
    }
    const double averageMs = 1000.0 * double(total) / chunks.size() / format.sampleRate;
    qInfo("%d chunks: %lld to %lld samples, %.1f ms on average; first after %lld ms", int(chunks.size()),
          smallest, largest, averageMs, recording.target->firstChunkAfterMs);
    // The consumer takes one chunk per 40 ms tick: shorter ones would pile up.
    QVERIFY2(averageMs >= 40.0, qPrintable(QString::number(averageMs)));
}

void AudioWorkerTest::missingDeviceFailsTheSetUp()
{
    QTest::ignoreMessage(QtWarningMsg, "unable to open device [ \"nosuch\" ]");
    Recording recording(QStringLiteral("nosuch"));
    QVERIFY(recording.pipeline->audio->audioFormat() == AudioFormat{});

    QSignalSpy stopped(recording.pipeline.get(), &Pipeline::stopedChanged);
    QVERIFY(!recording.pipeline->audio->start());
    QVERIFY(!recording.thread->isRunning());
    // Through the pipeline the refusal stops everything at once.
    QVERIFY(!recording.start());
    QCOMPARE(stopped.count(), 1);
    QVERIFY(!recording.thread->isRunning());
    QVERIFY(recording.target->taken().isEmpty());
}

void AudioWorkerTest::lostStreamEndsTheRecording()
{
    Recording recording(QStringLiteral("reel.monitor"));
    QSignalSpy stopped(recording.pipeline.get(), &Pipeline::stopedChanged);
    QThread* arrivedOn = nullptr;
    connect(recording.pipeline.get(), &Pipeline::stopedChanged, this,
            [&] { arrivedOn = QThread::currentThread(); });
    LogCapture log;
    QVERIFY(recording.start());
    QTRY_VERIFY_WITH_TIMEOUT(!recording.target->taken().isEmpty(), longWait);

    // The server takes the stream away, as when it goes down. (A source that
    // is removed does not do it: the server moves its streams elsewhere.)
    const QStringList streams = recordingStreams();
    QCOMPARE(streams.size(), 1);
    QVERIFY(platform::endAudioStream(streams.first().toUtf8(), longWait));
    QTRY_COMPARE_WITH_TIMEOUT(stopped.count(), 1, longWait);
    // Emitted on the audio thread, received on this one.
    QTRY_COMPARE_WITH_TIMEOUT(arrivedOn, QThread::currentThread(), longWait);
    QTRY_VERIFY_WITH_TIMEOUT(!recording.thread->isRunning(), longWait);
    QVERIFY(hasReadError(log));
}

void AudioWorkerTest::stopWhileTheDeviceIsSilent_data()
{
    QTest::addColumn<bool>("suspend");
    // The sink is suspended: its monitor delivers nothing, the stream stays.
    QTest::newRow("suspended source") << true;
    // A pipe source whose writer holds the pipe open and writes no more.
    QTest::newRow("starved source") << false;
}

void AudioWorkerTest::stopWhileTheDeviceIsSilent()
{
    QFETCH(bool, suspend);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString fifo = dir.filePath(QStringLiteral("samples"));
    QString deviceName = QStringLiteral("reel.monitor");
    QString module;
    QFile writer(fifo);
    // Feeds the pipe source in 10 ms steps until `fed` is set.
    std::atomic<bool> fed{false};
    std::thread feeder;
    if (!suspend) {
        module = pactl({QStringLiteral("load-module"), QStringLiteral("module-pipe-source"),
                        QStringLiteral("source_name=starved"), QStringLiteral("file=") + fifo,
                        QStringLiteral("format=s16le"), QStringLiteral("rate=48000"),
                        QStringLiteral("channels=2")});
        QVERIFY(!module.isEmpty());
        // The source made the pipe and holds its end open, so this does not
        // wait for a reader.
        QVERIFY(writer.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
        deviceName = QStringLiteral("starved");
        // The set-up itself waits for the first samples.
        feeder = std::thread([&] {
            const QByteArray step(48000 * bytesPerFrame / 100, '\0');
            while (!fed) {
                writer.write(step);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
    }
    Undo undo{[&] {
        fed = true;
        if (feeder.joinable())
            feeder.join();
        if (suspend)
            pactl({QStringLiteral("suspend-sink"), QStringLiteral("reel"), QStringLiteral("0")});
        writer.close();
        if (!module.isEmpty())
            pactl({QStringLiteral("unload-module"), module});
    }};

    Recording recording(deviceName);
    QSignalSpy stopped(recording.pipeline.get(), &Pipeline::stopedChanged);
    LogCapture log;
    QVERIFY(recording.start());
    QTRY_VERIFY_WITH_TIMEOUT(!recording.target->taken().isEmpty(), longWait);

    if (suspend)
        pactl({QStringLiteral("suspend-sink"), QStringLiteral("reel"), QStringLiteral("1")});
    fed = true;
    // Long enough for the reader to have drained what was there and to wait.
    QTest::qWait(1000);
    const qint64 before = recording.target->samplesTaken();
    QTest::qWait(500);
    QCOMPARE(recording.target->samplesTaken(), before);

    QVERIFY2(recording.stopsInTime(), "stop hangs while the device delivers nothing");
    QVERIFY(!recording.thread->isRunning());
    // The stop is a stop, not a failure of the device.
    QVERIFY(!hasReadError(log));
    QCOMPARE(stopped.count(), 0);
}

QTEST_GUILESS_MAIN(AudioWorkerTest)

#include "AudioWorkerTest.moc"
