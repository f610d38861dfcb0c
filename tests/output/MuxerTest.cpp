#include "output/Muxer.h"
#include "output/MuxerOutput.h"
#include "output/PacketWriter.h"
#include "pipeline/Pipeline.h"
#include "support/FakeSource.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"
#include "support/TestDevices.h"

#include <QBuffer>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryFile>
#include <QtTest>

#include <memory>
#include <random>

extern "C" {
#include <libavformat/avformat.h>
}

Q_DECLARE_METATYPE(std::optional<orvane::AudioFormat>)

using namespace orvane;
using namespace orvane::test;
using namespace std::chrono_literals;

namespace {

const QColor red(220, 30, 30);
const QColor green(30, 200, 40);
const QColor blue(30, 40, 210);

QImage picture(const QSize& size, const QColor& colour)
{
    QImage image(size, QImage::Format_BGR888);
    image.fill(colour);
    return image;
}

QImage noise(const QSize& size, unsigned seed)
{
    QImage image(size, QImage::Format_BGR888);
    std::minstd_rand random(seed);
    for (int y = 0; y < size.height(); ++y) {
        uchar* line = image.scanLine(y);
        for (int x = 0; x < size.width() * 3; ++x)
            line[x] = uchar(random());
    }
    return image;
}

bool near(const QColor& a, const QColor& b)
{
    const int tolerance = 24;
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance
        && qAbs(a.blue() - b.blue()) <= tolerance;
}

QColor centre(const QImage& image)
{
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

void give(MuxerOutput& output, const QImage& image)
{
    QMutexLocker lock(&output.mutex);
    output.image = image;
    output.imageFresh = true;
}

// A Muxer inside a Pipeline, as a recording has it; the video Source is a
// double without a thread.
struct Recording
{
    Recording(QIODevice* device, const QSize& size, const std::optional<AudioFormat>& format = {})
        : pipeline(std::make_unique<Pipeline>(nullptr, nullptr))
    {
        pipeline->video = std::make_unique<FakeSource>(pipeline.get(), size);
        muxer = new Muxer(size, format, device, pipeline.get());
        pipeline->target.reset(muxer);
    }

    std::unique_ptr<Pipeline> pipeline;
    Muxer* muxer = nullptr;
};

} // namespace

class MuxerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { av_log_set_level(AV_LOG_ERROR); }
    void videoSteps_data();
    void videoSteps();
    void recording();
    void neverStarted();
    void setUpFailures_data();
    void setUpFailures();
    void refusedWrites();
    void sequentialDevice();
    void packetLog_data();
    void packetLog();
    void clockComparison_data();
    void clockComparison();
    void audioQueueBound();
    void recordedTimeOfFrames();
};

// Each character of `steps` is one tick: R, G, B hand in a picture of that
// colour, b a blue one of the wrong size, '.' hands in nothing, J jumps the
// video clock by ten frames first, as the clock comparison does.
void MuxerTest::videoSteps_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<bool>("toFile");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("colours");
    QTest::addColumn<QList<int>>("pts");

    QTest::newRow("ticks before the first image encode nothing")
        << QSize(64, 48) << false << "..R" << "R" << QList<int>{1};
    QTest::newRow("no new image repeats the last picture")
        << QSize(64, 48) << false << "R...G." << "RRRRGG" << QList<int>{1, 2, 3, 4, 5, 6};
    QTest::newRow("a new image every tick") << QSize(64, 48) << false << "RGBR" << "RGBR"
                                            << QList<int>{1, 2, 3, 4};
    QTest::newRow("an image of another size keeps the last picture")
        << QSize(64, 48) << false << "Gb." << "GGG" << QList<int>{1, 2, 3};
    QTest::newRow("lines padded beyond the picture width")
        << QSize(34, 20) << false << "B.R" << "BBR" << QList<int>{1, 2, 3};
    QTest::newRow("a jump leaves a gap in the timestamps")
        << QSize(64, 48) << false << "R.J" << "RRR" << QList<int>{1, 2, 13};
    QTest::newRow("into a file") << QSize(320, 240) << true << "RG..B" << "RGGGB"
                                 << QList<int>{1, 2, 3, 4, 5};
}

void MuxerTest::videoSteps()
{
    QFETCH(QSize, size);
    QFETCH(bool, toFile);
    QFETCH(QString, steps);
    QFETCH(QString, colours);
    QFETCH(QList<int>, pts);

    QBuffer buffer;
    QTemporaryFile file;
    QIODevice* device = &buffer;
    if (toFile) {
        QVERIFY(file.open());
        device = &file;
    } else {
        QVERIFY(buffer.open(QIODevice::WriteOnly));
    }
    std::chrono::milliseconds recorded;
    {
        MuxerOutput output(device, size, std::nullopt);
        output.valid = output.setUp();
        QVERIFY(output.valid);
        for (const QChar step : steps) {
            switch (step.toLatin1()) {
            case 'R': give(output, picture(size, red)); break;
            case 'G': give(output, picture(size, green)); break;
            case 'B': give(output, picture(size, blue)); break;
            case 'b': give(output, picture(size + QSize(2, 2), blue)); break;
            case 'J': output.videoFrameCount += 10; break;
            default: break;
            }
            encodeVideoStep(output);
        }
        recorded = recordedTime(output);
    }
    QVERIFY(!device->isOpen());
    QCOMPARE(recorded, std::chrono::milliseconds(40 * colours.size()));

    const MediaProbe probe = toFile ? MediaProbe::fromFile(file.fileName()) : MediaProbe::fromData(buffer.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QCOMPARE(probe.streams.size(), 1);
    const ProbedStream& video = probe.streams[0];
    QCOMPARE(video.codec, QStringLiteral("h264"));
    QCOMPARE(video.pixelFormat, QStringLiteral("yuv420p"));
    QCOMPARE(QSize(video.width, video.height), size);
    QList<int> frames;
    for (const ProbedPacket& packet : video.packets)
        frames.append(int(qRound64(packet.pts * video.timeBase() * 25)));
    std::sort(frames.begin(), frames.end());
    QCOMPARE(frames, pts);

    const QVector<QImage> images = probe.decodeVideo();
    QCOMPARE(images.size(), colours.size());
    for (int i = 0; i < images.size(); ++i) {
        const QColor wanted = colours[i] == 'R' ? red : colours[i] == 'G' ? green : blue;
        QVERIFY2(near(centre(images[i]), wanted),
                 qPrintable(QStringLiteral("frame %1 is %2").arg(i).arg(centre(images[i]).name())));
    }
}

// A running Muxer: one image, then nothing, until stopped. The picture is
// repeated at each tick, the stop writes the trailer, the destruction closes.
void MuxerTest::recording()
{
    const QSize size(160, 120);
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    QIODevice* device = &buffer;
    Recording recording(device, size);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(recording.pipeline->start());
    recording.muxer->writeVideo(picture(size, green));
    QTRY_VERIFY_WITH_TIMEOUT(recording.muxer->recordedTime() >= 400ms, 60000);
    recording.pipeline->stop();
    const qint64 elapsed = clock.elapsed();
    const std::chrono::milliseconds recorded = recording.muxer->recordedTime();
    QVERIFY2(device->isOpen(), "the device is closed at destruction, not at stop");
    const qint64 written = device->size();
    recording.pipeline.reset();
    QVERIFY(!device->isOpen());

    const QByteArray bytes = buffer.data();
    QCOMPARE(qint64(bytes.size()), written);
    QCOMPARE(bytes.count("moov"), 1);

    const MediaProbe probe = MediaProbe::fromData(bytes);
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QCOMPARE(probe.streams.size(), 1);
    const int frames = probe.streams[0].packets.size();
    QCOMPARE(recorded, std::chrono::milliseconds(40 * frames));
    // One tick each 40 ms at most, a slow machine only makes fewer; the
    // stop adds one last frame.
    QVERIFY2(frames <= elapsed / 40 + 2, qPrintable(QStringLiteral("%1 frames in %2 ms").arg(frames).arg(elapsed)));
    const QVector<QImage> images = probe.decodeVideo();
    QCOMPARE(images.size(), frames);
    for (const QImage& image : images)
        QVERIFY(near(centre(image), green));
    const double seconds = std::chrono::duration<double>(recorded).count();
    QVERIFY2(qAbs(probe.duration - seconds) <= 0.04 + 1e-6,
             qPrintable(QStringLiteral("file lasts %1 s, recorded %2 s").arg(probe.duration).arg(seconds)));
}

// Header at construction, trailer at destruction: an empty but whole file,
// and stop on a thread that never ran returns at once.
void MuxerTest::neverStarted()
{
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    {
        Recording recording(&buffer, QSize(64, 48), AudioFormat{AV_SAMPLE_FMT_S16, 44100, 2, 3});
        recording.muxer->stop();
        QVERIFY(buffer.isOpen());
    }
    QVERIFY(!buffer.isOpen());
    // The MP4 muxer leaves tracks without samples out of the index.
    const MediaProbe probe = MediaProbe::fromData(buffer.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    for (const ProbedStream& stream : probe.streams)
        QVERIFY(stream.packets.isEmpty());
    QCOMPARE(buffer.data().count("moov"), 1);
}

void MuxerTest::setUpFailures_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<std::optional<AudioFormat>>("format");
    QTest::addColumn<QStringList>("warnings");

    const QStringList video{QStringLiteral("could not open video codec:  \"Generic error in an external library\""),
                            QStringLiteral("Failed to init muxer video")};
    QTest::newRow("odd width") << QSize(101, 100) << std::optional<AudioFormat>() << video;
    QTest::newRow("odd height") << QSize(100, 75) << std::optional<AudioFormat>() << video;
    QTest::newRow("a source that failed: 0 by 0")
        << QSize(0, 0) << std::optional<AudioFormat>()
        << QStringList{QStringLiteral("could not open video codec:  \"Invalid argument\""),
                       QStringLiteral("Failed to init muxer video")};
    QTest::newRow("an audio source that failed: all zero")
        << QSize(64, 48) << std::optional<AudioFormat>(AudioFormat{})
        << QStringList{QStringLiteral("Failed to initialize the resampling context:  \"Invalid argument\""),
                       QStringLiteral("Failed to init muxer audio")};
}

void MuxerTest::setUpFailures()
{
    QFETCH(QSize, size);
    QFETCH(std::optional<AudioFormat>, format);
    QFETCH(QStringList, warnings);

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    for (const QString& warning : warnings)
        QTest::ignoreMessage(QtWarningMsg, qPrintable(warning));
    Recording recording(&buffer, size, format);
    QVERIFY(!recording.muxer->start());
    recording.muxer->stop();
    QCOMPARE(recording.muxer->recordedTime(), 0ms);
    QVERIFY(!recording.pipeline->start());
    recording.pipeline.reset();
    QVERIFY(!buffer.isOpen());
    QVERIFY2(buffer.data().isEmpty(), "no header and no trailer after a failed set-up");
}

// A device that fills up mid-recording: every packet after that is reported,
// and the recording runs on until it is stopped.
void MuxerTest::refusedWrites()
{
    const QSize size(320, 240);
    RefusingDevice device(150000);
    QVERIFY(device.open(QIODevice::WriteOnly));
    LogCapture log;
    Recording recording(&device, size);
    QVERIFY(recording.pipeline->start());
    unsigned seed = 0;
    QTRY_VERIFY_WITH_TIMEOUT((recording.muxer->writeVideo(noise(size, ++seed)), device.refusals > 0), 60000);
    QTRY_VERIFY_WITH_TIMEOUT(!log.texts(QtWarningMsg).isEmpty(), 60000);
    const auto before = recording.muxer->recordedTime();
    QTRY_VERIFY_WITH_TIMEOUT((recording.muxer->writeVideo(noise(size, ++seed)),
                              recording.muxer->recordedTime() >= before + 200ms), 60000);
    recording.pipeline->stop();
    recording.pipeline.reset();
    QVERIFY(!device.isOpen());

    const QStringList warnings = log.texts(QtWarningMsg);
    QVERIFY(warnings.size() >= 2);
    for (const QString& warning : warnings)
        QCOMPARE(warning, QStringLiteral("Error while writing output packet:  \"Operation not permitted\""));
    QVERIFY(device.bytes.size() <= device.limit);
}

// A pipe cannot take an index written last: the stream is fragmented, and
// a reader from the pipe gets every frame.
void MuxerTest::sequentialDevice()
{
    const QString ffprobe = QStandardPaths::findExecutable(QStringLiteral("ffprobe"));
    if (ffprobe.isEmpty())
        QSKIP("ffprobe is not installed");
    const QSize size(96, 64);
    SequentialSink sink;
    QVERIFY(sink.open(QIODevice::WriteOnly));
    {
        MuxerOutput output(&sink, size, AudioFormat{AV_SAMPLE_FMT_S16, 44100, 2, 3});
        output.valid = output.setUp();
        QVERIFY(output.valid);
        const QByteArray tone(1764 * 4, '\x10');
        for (int tick = 0; tick < 30; ++tick) {
            give(output, picture(size, tick % 2 ? red : blue));
            queueAudio(output, tone, 1764);
            encodeVideoStep(output);
            encodeAudioStep(output);
        }
    }
    QVERIFY(sink.bytes.contains("moof"));

    QProcess probe;
    probe.start(ffprobe, {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
                          QStringLiteral("-show_streams"), QStringLiteral("-")});
    QVERIFY(probe.waitForStarted(60000));
    probe.write(sink.bytes);
    probe.closeWriteChannel();
    QVERIFY(probe.waitForFinished(60000));
    const QString out = QString::fromUtf8(probe.readAllStandardOutput());
    QCOMPARE(probe.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(probe.readAllStandardError()), QString());
    QVERIFY2(out.contains(QStringLiteral("codec_name=h264")), qPrintable(out));
    QVERIFY2(out.contains(QStringLiteral("codec_name=aac")), qPrintable(out));
    QVERIFY2(out.contains(QStringLiteral("nb_read_frames=30")), qPrintable(out));
}

void MuxerTest::packetLog_data()
{
    QTest::addColumn<bool>("debug");
    QTest::addColumn<int>("streamIndex");
    QTest::addColumn<qint64>("pts");
    QTest::addColumn<qint64>("dts");
    QTest::addColumn<qint64>("duration");
    QTest::addColumn<QString>("line");

    QTest::newRow("video, in the stream's time base")
        << true << 0 << qint64(512) << qint64(512) << qint64(512)
        << "pts: \"512\"  pts_time:  \"0.04\"  dts:  \"512\"  dts_time:  \"0.04\"  duration:  \"512\""
           "  duration_time:  \"0.04\"  stream_index:  0";
    QTest::newRow("no dts")
        << true << 0 << qint64(1024) << qint64(AV_NOPTS_VALUE) << qint64(0)
        << "pts: \"1024\"  pts_time:  \"0.08\"  dts:  \"NOPTS\"  dts_time:  \"NOPTS\"  duration:  \"0\""
           "  duration_time:  \"0\"  stream_index:  0";
    QTest::newRow("audio, negative dts")
        << true << 1 << qint64(44100) << qint64(-1024) << qint64(1024)
        << "pts: \"44100\"  pts_time:  \"1\"  dts:  \"-1024\"  dts_time:  \"-0.02322\"  duration:  \"1024\""
           "  duration_time:  \"0.02322\"  stream_index:  1";
    QTest::newRow("debug off") << false << 0 << qint64(512) << qint64(512) << qint64(512) << QString();
}

void MuxerTest::packetLog()
{
    QFETCH(bool, debug);
    QFETCH(int, streamIndex);
    QFETCH(qint64, pts);
    QFETCH(qint64, dts);
    QFETCH(qint64, duration);
    QFETCH(QString, line);

    AVFormatContext* format = avformat_alloc_context();
    avformat_new_stream(format, nullptr)->time_base = AVRational{1, 12800};
    avformat_new_stream(format, nullptr)->time_base = AVRational{1, 44100};
    AVPacket* packet = av_packet_alloc();
    packet->stream_index = streamIndex;
    packet->pts = pts;
    packet->dts = dts;
    packet->duration = duration;
    QStringList lines;
    {
        LogCapture log(debug);
        logPacket(format, packet);
        lines = log.texts(QtDebugMsg);
    }
    av_packet_free(&packet);
    avformat_free_context(format);
    QCOMPARE(lines, line.isEmpty() ? QStringList() : QStringList{line});
}

void MuxerTest::clockComparison_data()
{
    QTest::addColumn<quint64>("frames");
    QTest::addColumn<quint64>("samples");
    QTest::addColumn<bool>("jump");

    QTest::newRow("audio 0.4 s ahead exactly") << quint64(0) << quint64(17640) << false;
    QTest::newRow("audio 0.4 s ahead exactly, later on") << quint64(10) << quint64(35280) << false;
    QTest::newRow("audio a sample more than 0.4 s ahead") << quint64(0) << quint64(17641) << true;
    QTest::newRow("audio 0.44 s ahead") << quint64(14) << quint64(44100) << true;
    QTest::newRow("video 5 s ahead") << quint64(125) << quint64(0) << false;
    QTest::newRow("both at 1 s") << quint64(25) << quint64(44100) << false;
}

void MuxerTest::clockComparison()
{
    QFETCH(quint64, frames);
    QFETCH(quint64, samples);
    QFETCH(bool, jump);

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, QSize(64, 48), AudioFormat{AV_SAMPLE_FMT_S16, 44100, 2, 3});
    output.valid = output.setUp();
    QVERIFY(output.valid);
    output.videoFrameCount = frames;
    output.audioSampleCount = samples;
    LogCapture log(true);
    QCOMPARE(compareClocks(output), jump);
    QCOMPARE(output.videoFrameCount, frames + (jump ? 10 : 0));
    QCOMPARE(log.texts(QtDebugMsg),
             jump ? QStringList{QStringLiteral("video frame count adjusted")} : QStringList());
}

// Ten seconds of waiting sound at most; one warning for each time it fills.
void MuxerTest::audioQueueBound()
{
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, QSize(64, 48), AudioFormat{AV_SAMPLE_FMT_S16, 44100, 2, 3});
    output.valid = output.setUp();
    QVERIFY(output.valid);
    LogCapture log;
    int next = 0;
    auto push = [&](int count) {
        for (int i = 0; i < count; ++i)
            queueAudio(output, QByteArray(44100 * 4, char(next++)), 44100);
    };
    auto first = [&] { return int(output.audioQueue.first().samples.at(0)); };
    const QStringList full{QStringLiteral("audio queue full, dropping the oldest samples")};

    push(10);
    QCOMPARE(output.audioQueue.size(), 10);
    QVERIFY(log.texts(QtWarningMsg).isEmpty());
    push(3);
    QCOMPARE(output.audioQueue.size(), 10);
    QCOMPARE(first(), 3);
    QCOMPARE(log.texts(QtWarningMsg), full);

    for (int i = 0; i < 6; ++i)
        encodeAudioStep(output);
    QCOMPARE(output.audioQueue.size(), 4);
    QCOMPARE(first(), 9);
    push(7);
    QCOMPARE(output.audioQueue.size(), 10);
    QCOMPARE(log.texts(QtWarningMsg), full + full);
}

// Frames given to the encoder, 40 ms apiece, exactly: in floating point
// 803 frames read a millisecond short.
void MuxerTest::recordedTimeOfFrames()
{
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, QSize(64, 48), std::nullopt);
    QCOMPARE(recordedTime(output), 0ms);
    QVERIFY(output.setUp());
    for (const int frames : {1, 803, 900000}) {
        output.encodedFrames = frames;
        QCOMPARE(recordedTime(output), std::chrono::milliseconds(40 * qint64(frames)));
    }
}

QTEST_MAIN(MuxerTest)

#include "MuxerTest.moc"
