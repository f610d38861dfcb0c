// A whole recording of the screen and the test tone, read back: the sound
// track carries the tone and lasts as long as the picture.

#include "capture/AudioWorker.h"
#include "capture/VideoWorker.h"
#include "output/Muxer.h"
#include "pipeline/Pipeline.h"
#include "support/MediaProbe.h"

#include <QGuiApplication>
#include <QScreen>
#include <QTemporaryFile>
#include <QtTest>

#include <cmath>
#include <memory>

using namespace orvane;
using orvane::plugin::interface::AudioDevice;
using orvane::plugin::interface::VideoDevice;
using orvane::test::MediaProbe;
using orvane::test::ProbedStream;

namespace {

constexpr double tone = 440.0;

// Power of one frequency in a mono signal (Goertzel).
double power(const QVector<float>& signal, int from, int to, double frequency, int rate)
{
    const double coefficient = 2.0 * std::cos(2.0 * M_PI * frequency / rate);
    double previous = 0;
    double beforePrevious = 0;
    for (int i = from; i < to; ++i) {
        const double current = signal[i] + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    return previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
}

// Frequency of a mono signal by its upward zero crossings.
double crossingRate(const QVector<float>& signal, int rate)
{
    int crossings = 0;
    for (int i = 1; i < signal.size(); ++i) {
        if (signal[i - 1] < 0 && signal[i] >= 0)
            ++crossings;
    }
    return signal.isEmpty() ? 0 : double(crossings) * rate / signal.size();
}

// Seconds from the first packet's start to the last packet's end.
double timestampSpan(const ProbedStream& stream)
{
    if (stream.packets.isEmpty())
        return 0;
    int64_t first = stream.packets.first().pts;
    int64_t end = first;
    for (const auto& packet : stream.packets) {
        first = qMin(first, packet.pts);
        end = qMax(end, packet.pts + packet.duration);
    }
    return double(end - first) * stream.timeBase();
}

} // namespace

class AudioTrackTest : public QObject
{
    Q_OBJECT

private slots:
    void recordsTheToneAlongTheScreen();
};

void AudioTrackTest::recordsTheToneAlongTheScreen()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    {
        auto pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
        AudioDevice sound;
        sound.name = QStringLiteral("reel.monitor");
        VideoDevice screen;
        screen.screen = "0";
        screen.name = QStringLiteral("screen");
        screen.geometry = QGuiApplication::primaryScreen()->geometry();
        pipeline->audio = std::make_unique<AudioWorker>(sound, pipeline.get());
        pipeline->video = std::make_unique<VideoWorker>(screen, QRect(0, 0, 320, 240), pipeline.get());
        pipeline->target = std::make_unique<Muxer>(pipeline->video->videoSize(),
                                                   pipeline->audio->audioFormat(), &file, pipeline.get());
        QVERIFY(pipeline->start());
        QTest::qWait(4000);
        pipeline->stop();
    }

    const MediaProbe probe = MediaProbe::fromFile(file.fileName());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    const int videoIndex = probe.streamIndex(QStringLiteral("video"));
    const int audioIndex = probe.streamIndex(QStringLiteral("audio"));
    QVERIFY(videoIndex >= 0);
    QVERIFY(audioIndex >= 0);
    const ProbedStream& audio = probe.streams[audioIndex];
    QCOMPARE(audio.codec, QStringLiteral("aac"));

    const QVector<float> samples = probe.decodeAudio();
    const int channels = audio.channels;
    const int rate = audio.sampleRate;
    QVERIFY(channels > 0 && rate > 0);
    QVector<float> mono(samples.size() / channels);
    for (int i = 0; i < mono.size(); ++i) {
        for (int c = 0; c < channels; ++c)
            mono[i] += samples[i * channels + c] / channels;
    }
    const double videoSpan = timestampSpan(probe.streams[videoIndex]);
    const double audioSpan = timestampSpan(audio);
    const double decoded = double(mono.size()) / rate;
    qInfo("video %.3f s, audio %.3f s by its timestamps in %d packets, %.3f s decoded (%d samples at %d Hz): "
          "decoded minus timestamps %.3f s; %.1f Hz by zero crossings",
          videoSpan, audioSpan, int(audio.packets.size()), decoded, int(mono.size()), rate,
          decoded - audioSpan, crossingRate(mono, rate));
    // A second from the middle, away from the start-up and the end. Stale
    // or missing samples at frame joins spread the tone's power elsewhere.
    QVERIFY2(mono.size() > 2 * rate, qPrintable(QString::number(mono.size())));
    const int from = (mono.size() - rate) / 2;
    const double atTone = power(mono, from, from + rate, tone, rate);
    for (const double other : {220.0, 330.0, 550.0, 660.0, 880.0, 1000.0}) {
        const double atOther = power(mono, from, from + rate, other, rate);
        QVERIFY2(atTone > 100 * atOther, qPrintable(QStringLiteral("%1 Hz: %2 against %3 at 440 Hz")
                                                         .arg(other).arg(atOther).arg(atTone)));
    }

    QVERIFY2(std::abs(audioSpan - videoSpan) < 0.3, "the sound does not last as long as the picture");
}

QTEST_MAIN(AudioTrackTest)

#include "AudioTrackTest.moc"
