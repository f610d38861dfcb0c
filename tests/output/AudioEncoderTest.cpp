#include "output/MuxerOutput.h"
#include "support/LogCapture.h"
#include "support/MediaProbe.h"

#include <QBuffer>
#include <QRegularExpression>
#include <QtTest>

#include <cmath>
#include <cstring>
#include <memory>

extern "C" {
#include <libavformat/avformat.h>
}

Q_DECLARE_METATYPE(AVSampleFormat)

using namespace orvane;
using namespace orvane::test;

namespace {

// `seconds` of a 440 Hz tone at half scale, in chunks of 40 ms, laid out as
// the format wants (planar formats carry their planes one after the other).
QList<QByteArray> tone(const AudioFormat& format, double seconds)
{
    const int chunk = format.sampleRate / 25;
    const int bytes = av_get_bytes_per_sample(format.sampleFormat);
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    QList<QByteArray> chunks;
    int64_t sample = 0;
    for (int c = 0; c < int(seconds * 25); ++c) {
        QByteArray data(chunk * format.channels * bytes, '\0');
        for (int i = 0; i < chunk; ++i, ++sample) {
            const double value = 0.5 * std::sin(2 * M_PI * 440.0 * double(sample) / format.sampleRate);
            for (int ch = 0; ch < format.channels; ++ch) {
                const int index = planar ? ch * chunk + i : i * format.channels + ch;
                char* at = data.data() + index * bytes;
                if (bytes == 2) {
                    const qint16 v = qint16(value * 32767);
                    std::memcpy(at, &v, 2);
                } else {
                    const float v = float(value);
                    std::memcpy(at, &v, 4);
                }
            }
        }
        chunks.append(data);
    }
    return chunks;
}

// Rising zero crossings a second, of one channel of interleaved samples.
double frequency(const QVector<float>& samples, int channels, int channel, int rate)
{
    int crossings = 0;
    const int frames = samples.size() / channels;
    // Leave out the encoder's start-up.
    for (int i = 4096 + 1; i < frames; ++i) {
        if (samples[(i - 1) * channels + channel] < 0 && samples[i * channels + channel] >= 0)
            ++crossings;
    }
    return crossings * double(rate) / (frames - 4096);
}

double level(const QVector<float>& samples, int channels, int channel)
{
    double sum = 0;
    const int frames = samples.size() / channels;
    for (int i = 0; i < frames; ++i)
        sum += samples[i * channels + channel] * samples[i * channels + channel];
    return frames ? std::sqrt(sum / frames) : 0;
}

std::unique_ptr<MuxerOutput> openTrack(QBuffer& buffer, const AudioFormat& format)
{
    buffer.open(QIODevice::WriteOnly);
    auto output = std::make_unique<MuxerOutput>(&buffer, QSize(64, 48), format);
    output->valid = output->setUp();
    return output;
}

} // namespace

class AudioEncoderTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { av_log_set_level(AV_LOG_ERROR); }
    void chunkFrames_data();
    void chunkFrames();
    void tracks_data();
    void tracks();
};

void AudioEncoderTest::chunkFrames_data()
{
    QTest::addColumn<QList<int>>("chunks");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("rest");

    QTest::newRow("an empty queue encodes nothing") << QList<int>{} << 0 << 0;
    QTest::newRow("two frames and 452 samples") << QList<int>{2 * 1024 + 452} << 2 << 452;
    QTest::newRow("the rest waits for the next chunk") << QList<int>{2 * 1024 + 452, 572} << 3 << 0;
    QTest::newRow("short chunks add up") << QList<int>{300, 300, 300, 300} << 1 << 176;
    QTest::newRow("exactly one frame") << QList<int>{1024} << 1 << 0;
}

// At equal rates the encoder gets frames of its own size only, one step a
// chunk, each timed by the samples up to its end; a short rest waits in the
// frame for the next chunk instead of going in padded with old samples.
void AudioEncoderTest::chunkFrames()
{
    QFETCH(QList<int>, chunks);
    QFETCH(int, frames);
    QFETCH(int, rest);

    QBuffer buffer;
    const AudioFormat format{AV_SAMPLE_FMT_S16, 44100, 2, 3};
    auto output = openTrack(buffer, format);
    QVERIFY(output->valid);
    QCOMPARE(output->audioFrameSize, 1024);

    QList<qint64> packetPts;
    {
        LogCapture log(true);
        encodeAudioStep(*output);
        for (int samples : chunks) {
            queueAudio(*output, QByteArray(samples * 4, '\x01'), samples);
            encodeAudioStep(*output);
            QVERIFY(output->audioQueue.isEmpty());
        }
        const QRegularExpression audioPacket(QStringLiteral("^pts: \"(-?\\d+)\".*stream_index:  1$"));
        for (const QString& line : log.texts(QtDebugMsg)) {
            const auto match = audioPacket.match(line);
            if (match.hasMatch())
                packetPts.append(match.captured(1).toLongLong());
        }
    }
    QCOMPARE(frameNumber(output->audioContext), qint64(frames));
    QCOMPARE(output->audioFrame->nb_samples, 1024);
    QCOMPARE(output->audioFrameFill, rest);
    QCOMPARE(output->audioSampleCount, quint64(1024 * frames));
    if (frames)
        QCOMPARE(output->audioFrame->pts, qint64(1024 * frames));

    // The encoder holds frames back; what it still has comes out on a flush.
    // Packets are timed by their frames, less the encoder's fixed delay.
    AVPacket* packet = av_packet_alloc();
    avcodec_send_frame(output->audioContext, nullptr);
    while (avcodec_receive_packet(output->audioContext, packet) == 0) {
        packetPts.append(packet->pts);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    for (int i = 1; i < frames; ++i)
        QCOMPARE(packetPts.value(i) - packetPts.value(i - 1), qint64(1024));
}

void AudioEncoderTest::tracks_data()
{
    QTest::addColumn<AVSampleFormat>("sampleFormat");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("channels");

    QTest::newRow("48 kHz becomes 44.1 kHz") << AV_SAMPLE_FMT_S16 << 48000 << 2;
    QTest::newRow("44.1 kHz as it is") << AV_SAMPLE_FMT_S16 << 44100 << 2;
    QTest::newRow("mono becomes stereo") << AV_SAMPLE_FMT_S16 << 44100 << 1;
    QTest::newRow("planar float") << AV_SAMPLE_FMT_FLTP << 48000 << 2;
    QTest::newRow("packed float, six channels") << AV_SAMPLE_FMT_FLT << 32000 << 6;
}

// Whatever comes in, the track is the encoder's: AAC, 44.1 kHz, stereo, and
// a tone keeps its pitch on both channels.
void AudioEncoderTest::tracks()
{
    QFETCH(AVSampleFormat, sampleFormat);
    QFETCH(int, rate);
    QFETCH(int, channels);

    const AudioFormat format{sampleFormat, rate, channels, 0};
    QBuffer buffer;
    {
        auto output = openTrack(buffer, format);
        QVERIFY(output->valid);
        QImage picture(output->size, QImage::Format_BGR888);
        picture.fill(Qt::gray);
        output->image = picture;
        output->imageFresh = true;
        for (const QByteArray& chunk : tone(format, 2.0)) {
            queueAudio(*output, chunk, rate / 25);
            encodeVideoStep(*output);
            encodeAudioStep(*output);
        }
        // Whole frames only: the last rest and the resampler's delay wait.
        QVERIFY2(output->audioSampleCount <= 88200 && output->audioSampleCount > 88200 - 1024 - 64,
                 qPrintable(QString::number(output->audioSampleCount)));
    }
    const MediaProbe probe = MediaProbe::fromData(buffer.data());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    const int index = probe.streamIndex(QStringLiteral("audio"));
    QCOMPARE(index, 1);
    const ProbedStream& track = probe.streams[index];
    QCOMPARE(track.codec, QStringLiteral("aac"));
    QCOMPARE(track.sampleRate, 44100);
    QCOMPARE(track.channels, 2);
    QCOMPARE(track.timeBaseDen, 44100);

    const QVector<float> decoded = probe.decodeAudio();
    QVERIFY(decoded.size() / 2 > 44100);
    for (int channel = 0; channel < 2; ++channel) {
        const double pitch = frequency(decoded, 2, channel, 44100);
        QVERIFY2(qAbs(pitch - 440.0) < 10.0, qPrintable(QStringLiteral("channel %1 at %2 Hz").arg(channel).arg(pitch)));
        QVERIFY2(level(decoded, 2, channel) > 0.1, qPrintable(QStringLiteral("channel %1 silent").arg(channel)));
    }
}

QTEST_MAIN(AudioEncoderTest)

#include "AudioEncoderTest.moc"
