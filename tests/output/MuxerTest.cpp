#include "output/Muxer.h"
#include "output/MuxerOutput.h"
#include "output/PacketWriter.h"
#include "pipeline/Pipeline.h"
#include "support/FakeSource.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"
#include "support/TestDevices.h"

#include <QPainter>
#include <QProcess>
#include <QRandomGenerator>
#include <QtTest>

#include <cmath>

extern "C" {
#include <libavformat/avformat.h>
}

Q_DECLARE_METATYPE(std::optional<orvane::AudioFormat>)
Q_DECLARE_METATYPE(AVSampleFormat)

using namespace orvane;
using namespace orvane::test;
using namespace std::chrono_literals;

namespace {

const AudioFormat cd{AV_SAMPLE_FMT_S16, 44100, 2, 3};

// R, G, B or W all over; N noise, which encodes to large packets.
QImage picture(const QSize& size, QChar name)
{
    QImage image(size, QImage::Format_BGR888);
    image.fill(name == 'R' ? Qt::red : name == 'G' ? Qt::green : name == 'W' ? Qt::white : Qt::blue);
    if (name == 'N')
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(image.bits()), image.sizeInBytes() / 4);
    return image;
}

// The colour at the centre of each picture, by name.
QString centres(const QVector<QImage>& images)
{
    QString names;
    for (const QImage& image : images) {
        const QColor c = image.pixelColor(image.width() / 2, image.height() / 2);
        names += c.red() > 200 && c.green() > 200 && c.blue() > 200 ? 'W'
                 : c.red() > 200 && c.green() + c.blue() < 90 ? 'R' : c.green() > 200 && c.red() + c.blue() < 90 ? 'G'
                 : c.blue() > 200 && c.red() + c.green() < 90 ? 'B' : '?';
    }
    return names;
}

// 40 ms of a 440 Hz tone at half scale from sample `from` on, in float
// samples laid out as the format wants (planes one after the other).
QByteArray tone(const AudioFormat& format, int from)
{
    const int count = format.sampleRate / 25;
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    QVector<float> data(count * format.channels);
    for (int i = 0; i < count; ++i) {
        for (int c = 0; c < format.channels; ++c)
            data[planar ? c * count + i : i * format.channels + c] = float(0.5 * std::sin(2 * M_PI * 440 * (from + i) / format.sampleRate));
    }
    return QByteArray(reinterpret_cast<const char*>(data.constData()), data.size() * 4);
}

void queueAudio(MuxerOutput& output, const QByteArray& samples, qint64 count, CaptureTime captured = noCaptureTime)
{
    output.audioQueue.append(AudioChunk{samples, count, captured});
}

MuxerOutput& setUp(MuxerOutput& output)
{
    output.valid = output.setUp();
    return output;
}

std::unique_ptr<Pipeline> recording(QIODevice* device, const QSize& size, const std::optional<AudioFormat>& format = {})
{
    auto pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
    pipeline->video = std::make_unique<FakeSource>(pipeline.get(), size);
    pipeline->target = std::make_unique<Muxer>(size, format, device, pipeline.get());
    return pipeline;
}

} // namespace

class MuxerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { av_log_set_level(AV_LOG_ERROR); }
    void videoSteps_data();
    void videoSteps();
    void colours();
    void lifecycle_data();
    void lifecycle();
    void setUpFailures_data();
    void setUpFailures();
    void refusedWrites();
    void sequentialDevice();
    void packetLog();
    void clocks_data();
    void clocks();
    void wholeAudioFrames_data();
    void wholeAudioFrames();
    void audioTracks_data();
    void audioTracks();
    void capturedTogether();
};

// Each character of `steps` is a tick: R, G, B hand in a picture, b one of
// the wrong size, '.' nothing, J jumps the video clock by ten frames first.
void MuxerTest::videoSteps_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("pictures");
    QTest::addColumn<QList<int>>("pts");

    QTest::newRow("the last picture repeats, past a wrong size too; a jump leaves a gap")
        << QSize(320, 240) << "..R.bJG" << "RRRRG" << QList<int>{1, 2, 3, 14, 15};
    QTest::newRow("lines padded beyond the width") << QSize(34, 20) << "B.R" << "BBR" << QList<int>{1, 2, 3};
}

void MuxerTest::videoSteps()
{
    QFETCH(QSize, size);
    QFETCH(QString, steps);
    QFETCH(QString, pictures);
    QFETCH(QList<int>, pts);

    QTemporaryFile file;
    QVERIFY(file.open());
    {
        MuxerOutput output(&file, size, std::nullopt);
        QVERIFY(setUp(output).valid);
        for (const QChar step : steps) {
            output.videoFrameCount += step == 'J' ? 10 : 0;
            if ((output.imageFresh = QStringLiteral("RGBb").contains(step)))
                output.image = picture(step == 'b' ? size + QSize(2, 2) : size, step.toUpper());
            encodeVideoStep(output);
        }
        QCOMPARE(recordedTime(output), 40ms * pictures.size());
    }
    QVERIFY(!file.isOpen());
    const MediaProbe probe = MediaProbe::fromFile(file.fileName());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QCOMPARE(probe.streams.size(), 1);
    const ProbedStream& video = probe.streams[0];
    QCOMPARE(QString("%1 %2 %3x%4").arg(video.codec, video.pixelFormat).arg(video.width).arg(video.height),
             QString("h264 yuv420p %1x%2").arg(size.width()).arg(size.height()));
    QList<int> frames;
    for (const ProbedPacket& packet : video.packets)
        frames.append(qRound(packet.pts * video.timeBase * 25));
    std::sort(frames.begin(), frames.end());
    QCOMPARE(frames, pts);
    QCOMPARE(centres(probe.decodeVideo()), pictures);
}

// The picture the encoder gets: BT.601 at limited range, as H.264 players
// read it, within 2 levels. A swap of red and blue, full range or another
// matrix are all further off than that.
void MuxerTest::colours()
{
    struct Patch
    {
        QColor colour;
        int y, u, v;
    };
    const Patch patches[] = {{Qt::red, 81, 90, 240},    {Qt::green, 145, 54, 34}, {Qt::blue, 41, 240, 110},
                             {Qt::white, 235, 128, 128}, {Qt::black, 16, 128, 128}, {QColor(255, 128, 0), 146, 53, 193}};
    QImage image(QSize(6 * 32, 32), QImage::Format_BGR888);
    QPainter painter(&image);
    for (int i = 0; i < 6; ++i)
        painter.fillRect(i * 32, 0, 32, 32, patches[i].colour);
    painter.end();

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, image.size(), std::nullopt);
    QVERIFY(setUp(output).valid);
    output.image = image;
    output.imageFresh = true;
    encodeVideoStep(output);
    const AVFrame& frame = *output.videoFrame;
    for (int i = 0; i < 6; ++i) {
        const int x = i * 32 + 16, y = 16;
        const int got[] = {frame.data[0][y * frame.linesize[0] + x], frame.data[1][y / 2 * frame.linesize[1] + x / 2],
                           frame.data[2][y / 2 * frame.linesize[2] + x / 2]};
        const int wanted[] = {patches[i].y, patches[i].u, patches[i].v};
        for (int plane = 0; plane < 3; ++plane)
            QVERIFY2(qAbs(got[plane] - wanted[plane]) <= 2,
                     qPrintable(QString("%1, plane %2: %3, not %4").arg(patches[i].colour.name()).arg(plane).arg(got[plane]).arg(wanted[plane])));
    }
}

void MuxerTest::lifecycle_data()
{
    QTest::addColumn<bool>("run");
    QTest::newRow("run, then stopped") << true;
    QTest::newRow("never started") << false;
}

// The trailer is written at the stop (at destruction if it never ran), the
// device closed at destruction: a whole file either way.
void MuxerTest::lifecycle()
{
    QFETCH(bool, run);
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    auto pipeline = recording(&buffer, QSize(160, 120));
    Target* muxer = pipeline->target.get();
    QVERIFY(!run || pipeline->start());
    muxer->writeVideo(picture(QSize(160, 120), 'G'), noCaptureTime);
    QTRY_VERIFY_WITH_TIMEOUT(!run || muxer->recordedTime() >= 400ms, 60000);
    run ? pipeline->stop() : muxer->stop();
    const auto recorded = muxer->recordedTime();
    const int written = buffer.data().size();
    QVERIFY2(buffer.isOpen(), "closed at the stop");
    pipeline.reset();
    QVERIFY(!buffer.isOpen());
    QVERIFY(!run || buffer.data().size() == written);
    QCOMPARE(buffer.data().count("moov"), 1);

    const MediaProbe probe = MediaProbe::fromData(buffer.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    const int frames = probe.streams.value(0).packets.size();
    QCOMPARE(frames > 0, run);
    QCOMPARE(recorded, 40ms * frames);
    QCOMPARE(centres(probe.decodeVideo()), QString(frames, 'G'));
    QVERIFY2(qAbs(probe.duration - frames * 0.04) < 0.041, qPrintable(QString::number(probe.duration)));
}

void MuxerTest::setUpFailures_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<std::optional<AudioFormat>>("format");
    QTest::addColumn<QStringList>("warnings");

    QTest::newRow("odd size") << QSize(101, 75) << std::optional<AudioFormat>()
                              << QStringList{"could not open video codec:  \"Generic error in an external library\"",
                                             "Failed to init muxer video"};
    // Its source has said why; nothing is added to that.
    QTest::newRow("an audio source that failed: all zero")
        << QSize(64, 48) << std::optional<AudioFormat>(AudioFormat{}) << QStringList{};
}

void MuxerTest::setUpFailures()
{
    QFETCH(QSize, size);
    QFETCH(std::optional<AudioFormat>, format);
    QFETCH(QStringList, warnings);

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    LogCapture log;
    auto pipeline = recording(&buffer, size, format);
    QCOMPARE(log.texts(QtWarningMsg), warnings);
    QVERIFY(!pipeline->target->start());
    QVERIFY(!pipeline->start());
    pipeline.reset();
    QVERIFY(!buffer.isOpen());
    QVERIFY2(buffer.data().isEmpty(), "no header and no trailer after a failed set-up");
}

// A full disk mid-recording: a warning for each packet, and the recording
// runs on until it is stopped.
void MuxerTest::refusedWrites()
{
    RefusingDevice device(150000);
    QVERIFY(device.open(QIODevice::WriteOnly));
    LogCapture log;
    auto pipeline = recording(&device, QSize(320, 240));
    Target* muxer = pipeline->target.get();
    QVERIFY(pipeline->start());
    auto feed = [&] { return muxer->writeVideo(picture(QSize(320, 240), 'N'), noCaptureTime), true; };
    QTRY_VERIFY_WITH_TIMEOUT(feed() && log.texts(QtWarningMsg).size() >= 2, 60000);
    const auto before = muxer->recordedTime();
    QTRY_VERIFY_WITH_TIMEOUT(feed() && muxer->recordedTime() >= before + 200ms, 60000);
    pipeline.reset();
    QVERIFY(!device.isOpen() && device.refusals > 0 && device.data().size() <= device.limit);
    const QStringList warnings = log.texts(QtWarningMsg);
    QVERIFY2(warnings.count("Error while writing output packet:  \"Operation not permitted\"") == warnings.size(),
             qPrintable(warnings.join('\n')));
}

// A pipe cannot take an index written last: the stream is fragmented, and a
// reader from the pipe gets every frame.
void MuxerTest::sequentialDevice()
{
    SequentialSink sink;
    QVERIFY(sink.open(QIODevice::WriteOnly));
    {
        MuxerOutput output(&sink, QSize(96, 64), cd);
        QVERIFY(setUp(output).valid);
        for (int tick = 0; tick < 30; ++tick) {
            output.image = picture(QSize(96, 64), tick % 2 ? 'R' : 'B');
            output.imageFresh = true;
            queueAudio(output, QByteArray(1764 * 4, '\x10'), 1764);
            encodeVideoStep(output);
            encodeAudioStep(output);
        }
    }
    QVERIFY(sink.bytes.contains("moof"));
    QProcess ffprobe;
    ffprobe.start("ffprobe", {"-v", "error", "-count_frames", "-show_streams", "-"});
    ffprobe.write(sink.bytes);
    ffprobe.closeWriteChannel();
    QVERIFY(ffprobe.waitForFinished(60000));
    const QByteArray out = ffprobe.readAllStandardOutput() + ffprobe.readAllStandardError();
    QVERIFY2(out.contains("codec_name=h264") && out.contains("codec_name=aac") && out.contains("nb_read_frames=30")
                 && !out.contains("rror"), out.constData());
}

void MuxerTest::packetLog()
{
    AVFormatContext* format = avformat_alloc_context();
    avformat_new_stream(format, nullptr)->time_base = AVRational{1, 12800};
    avformat_new_stream(format, nullptr)->time_base = AVRational{1, 44100};
    AVPacket* packet = av_packet_alloc();
    auto line = [&](bool debug, int stream, int64_t dts) {
        packet->stream_index = stream;
        packet->pts = 1024;
        packet->dts = dts;
        packet->duration = 512;
        LogCapture log(debug);
        logPacket(format, packet);
        return log.texts(QtDebugMsg).join('|');
    };
    QCOMPARE(line(true, 0, 512), "pts: \"1024\"  pts_time:  \"0.08\"  dts:  \"512\"  dts_time:  \"0.04\""
                                 "  duration:  \"512\"  duration_time:  \"0.04\"  stream_index:  0");
    QCOMPARE(line(true, 1, AV_NOPTS_VALUE), "pts: \"1024\"  pts_time:  \"0.02322\"  dts:  \"NOPTS\"  dts_time:  \"NOPTS\""
                                            "  duration:  \"512\"  duration_time:  \"0.01161\"  stream_index:  1");
    QCOMPARE(line(false, 0, 512), QString());
    av_packet_free(&packet);
    avformat_free_context(format);
}

void MuxerTest::clocks_data()
{
    QTest::addColumn<quint64>("frames");
    QTest::addColumn<quint64>("samples");
    QTest::addColumn<bool>("jump");

    QTest::newRow("audio 0.4 s ahead exactly") << quint64(10) << quint64(35280) << false;
    QTest::newRow("audio a sample more ahead") << quint64(0) << quint64(17641) << true;
    QTest::newRow("video 5 s ahead") << quint64(125) << quint64(0) << false;
}

void MuxerTest::clocks()
{
    QFETCH(quint64, frames);
    QFETCH(quint64, samples);
    QFETCH(bool, jump);

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, QSize(64, 48), cd);
    QVERIFY(setUp(output).valid);
    output.videoFrameCount = frames;
    output.audioSampleCount = samples;
    LogCapture log(true);
    QCOMPARE(compareClocks(output), jump);
    QCOMPARE(output.videoFrameCount, frames + (jump ? 10 : 0));
    QCOMPARE(log.texts(QtDebugMsg), jump ? QStringList{"video frame count adjusted"} : QStringList());
    // Recorded time counts whole frames: in floating point 803 read 1 ms short.
    output.pictureFrames = 803;
    QCOMPARE(recordedTime(output), 32120ms);
}

void MuxerTest::wholeAudioFrames_data()
{
    QTest::addColumn<QList<int>>("chunks");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("rest");

    QTest::newRow("an empty queue encodes nothing") << QList<int>{} << 0 << 0;
    QTest::newRow("two frames and 452 samples") << QList<int>{2 * 1024 + 452} << 2 << 452;
    QTest::newRow("the rest waits for the next chunk") << QList<int>{2 * 1024 + 452, 572} << 3 << 0;
    QTest::newRow("short chunks add up") << QList<int>{300, 300, 300, 300} << 1 << 176;
}

// At equal rates the encoder gets whole frames only, each timed by the
// samples up to its end; a rest waits for the next chunk, not padded.
void MuxerTest::wholeAudioFrames()
{
    QFETCH(QList<int>, chunks);
    QFETCH(int, frames);
    QFETCH(int, rest);

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    MuxerOutput output(&buffer, QSize(64, 48), cd);
    QVERIFY(setUp(output).valid);
    encodeAudioStep(output);
    for (const int samples : chunks) {
        queueAudio(output, QByteArray(samples * 4, '\x01'), samples);
        encodeAudioStep(output);
        QVERIFY(output.audioQueue.isEmpty());
    }
    QCOMPARE(frameNumber(output.audioContext), qint64(frames));
    QCOMPARE(output.audioFrameFill, rest);
    QCOMPARE(output.audioSampleCount, quint64(1024 * frames));
    QVERIFY(!frames || output.audioFrame->pts == 1024 * frames);
}

void MuxerTest::audioTracks_data()
{
    QTest::addColumn<AVSampleFormat>("sampleFormat");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");

    QTest::newRow("48 kHz becomes 44.1 kHz") << AV_SAMPLE_FMT_FLT << 48000 << 2;
    QTest::newRow("mono becomes stereo") << AV_SAMPLE_FMT_FLT << 44100 << 1;
    QTest::newRow("planar") << AV_SAMPLE_FMT_FLTP << 48000 << 2;
}

// Whatever comes in, the track is AAC at 44.1 kHz in stereo, its packets a
// frame apart, and two seconds of tone keep their pitch on both channels.
void MuxerTest::audioTracks()
{
    QFETCH(AVSampleFormat, sampleFormat);
    QFETCH(int, rate);
    QFETCH(int, channels);

    const AudioFormat format{sampleFormat, rate, channels, 0};
    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::WriteOnly));
    {
        MuxerOutput output(&buffer, QSize(64, 48), format);
        QVERIFY(setUp(output).valid);
        for (int from = 0; from < 2 * rate; from += rate / 25) {
            queueAudio(output, tone(format, from), rate / 25);
            encodeAudioStep(output);
        }
    }
    const MediaProbe probe = MediaProbe::fromData(buffer.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    const ProbedStream track = probe.streams.value(probe.streamIndex("audio"));
    QCOMPARE(QString("%1 %2 %3").arg(track.codec).arg(track.sampleRate).arg(track.channels), QString("aac 44100 2"));
    // Whole frames, but for the short last one that ends the sound.
    for (int i = 1; i + 1 < track.packets.size(); ++i)
        QCOMPARE(track.packets[i].pts - track.packets[i - 1].pts, qint64(1024));
    const QString wrong = checkTone(probe.decodeAudio(), 2, 44100, 440);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
}

// Where the inputs tell when they captured, what was captured together plays
// together: sound from before the picture's start is cut off, a gap in the
// sound becomes as much silence, and the sound ends with the picture.
void MuxerTest::capturedTogether()
{
    const AudioFormat s16{AV_SAMPLE_FMT_S16, 48000, 2, 3};
    const CaptureTime t0 = 1800000000000000;
    const QSize size(64, 48);
    // On from 1 s to 1.2 s of every 2 s after t0, and at -0.25 s.
    const auto on = [t0](CaptureTime at, int lengthMs) {
        const int64_t ms = (at - t0) / 1000;
        return (ms >= 0 && ms % 2000 >= 1000 && ms % 2000 < 1000 + lengthMs) || (ms >= -250 && ms < -150);
    };
    QTemporaryFile file;
    QVERIFY(file.open());
    {
        MuxerOutput output(&file, size, s16);
        QVERIFY(setUp(output).valid);
        // The sound begins 0.3 s before the first image; 1.1 s of it, from
        // 4.9 s on, never comes.
        qint64 sample = 0;
        const CaptureTime soundFrom = t0 - 300000;
        // The picture stops first: the sound goes on 0.3 s longer.
        for (int tick = 1; tick <= 258; ++tick) {
            const CaptureTime captured = t0 + tick * 40000;
            if (tick > 250) {
                queueAudio(output, QByteArray(1920 * 4, '\0'), 1920, soundFrom + sample * 1000000 / 48000);
                sample += 1920;
                continue;
            }
            output.image = picture(size, on(captured, 200) ? 'W' : 'B');
            output.imageCaptured = captured;
            output.imageFresh = true;
            encodeVideoStep(output);
            for (CaptureTime at = soundFrom + sample * 1000000 / 48000; at < captured; at = soundFrom + sample * 1000000 / 48000) {
                QByteArray chunk(1920 * 4, '\0');
                auto* pcm = reinterpret_cast<int16_t*>(chunk.data());
                for (int i = 0; i < 1920; ++i) {
                    if (on(soundFrom + (sample + i) * 1000000 / 48000, 100))
                        pcm[2 * i] = pcm[2 * i + 1] = int16_t(20000 * std::sin(2 * M_PI * 1000 * (sample + i) / 48000.0));
                }
                if (at < t0 + 4900000 || at >= t0 + 6000000)
                    queueAudio(output, chunk, 1920, at);
                sample += 1920;
            }
            encodeAudioStep(output);
        }
    }
    const MediaProbe probe = MediaProbe::fromFile(file.fileName());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
    const ProbedStream audio = probe.streams.value(probe.streamIndex("audio"));
    QVERIFY2(qAbs(audio.duration - video.duration) < 0.03, qPrintable(QString("sound %1 s, picture %2 s").arg(audio.duration).arg(video.duration)));

    // Where the flashes and the beeps begin, in seconds of the file.
    QList<double> flashes, beeps;
    const QString names = centres(probe.decodeVideo());
    QVector<qint64> pts;
    for (const ProbedPacket& packet : video.packets)
        pts.append(packet.pts);
    std::sort(pts.begin(), pts.end());
    for (int i = 1; i < names.size(); ++i) {
        if (names[i] == 'W' && names[i - 1] != 'W')
            flashes.append(pts.value(i) * video.timeBase);
    }
    const QVector<float> sound = probe.decodeAudio();
    for (int i = 0, quiet = 0; i < sound.size() / 2; ++i) {
        const bool loud = qAbs(sound[2 * i]) > 0.1f;
        if (loud && quiet > audio.sampleRate / 20)
            beeps.append(double(i) / audio.sampleRate);
        quiet = loud ? 0 : quiet + 1;
    }
    QCOMPARE(flashes.size(), 5);
    // The beep before the start is not there, nor the one of the gap.
    QCOMPARE(beeps.size(), flashes.size() - 1);
    for (int f = 0, b = 0; f < flashes.size(); ++f) {
        if (qAbs(flashes[f] - 5.0) < 0.05)
            continue;
        QVERIFY2(qAbs(beeps[b] - flashes[f]) < 0.005,
                 qPrintable(QString("flash at %1 s, beep at %2 s").arg(flashes[f]).arg(beeps[b])));
        ++b;
    }
}

QTEST_MAIN(MuxerTest)

#include "MuxerTest.moc"
