#include "output/Muxer.h"
#include "output/MuxerOutput.h"
#include "pipeline/Pipeline.h"
#include "support/Fakes.h"
#include "support/MediaProbe.h"

#include <QtTest>

#include <cmath>

extern "C" {
#include <libavformat/avformat.h>
}

Q_DECLARE_METATYPE(orvane::AudioFormat)

using namespace orvane;
using namespace orvane::test;
using namespace std::chrono_literals;

namespace {

// R, G, B or W all over; N noise, which encodes to large packets.
QImage picture(const QSize& size, QChar name)
{
    QImage image(size, QImage::Format_BGR888);
    image.fill(name == 'R' ? Qt::red : name == 'G' ? Qt::green : name == 'W' ? Qt::white : Qt::blue);
    if (name == 'N')
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(image.bits()), image.sizeInBytes() / 4);
    return image;
}

// The colour at the centre of each picture, by letter.
QString centres(const QVector<QImage>& images)
{
    QString names;
    for (const QImage& image : images)
        names += colourLetter(image.pixelColor(image.width() / 2, image.height() / 2));
    return names;
}

// `count` samples of a 440 Hz tone at half scale from sample `from` on, in
// float samples laid out as the format wants (planes one after the other).
QByteArray tone(const AudioFormat& format, int from, int count)
{
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    QVector<float> data(count * format.channels);
    for (int i = 0; i < count; ++i) {
        for (int c = 0; c < format.channels; ++c)
            data[planar ? c * count + i : i * format.channels + c] = float(0.5 * std::sin(2 * M_PI * 440 * (from + i) / format.sampleRate));
    }
    return QByteArray(reinterpret_cast<const char*>(data.constData()), data.size() * 4);
}

} // namespace

class MuxerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { av_log_set_level(AV_LOG_ERROR); }

    // Each character is a tick: R, G hand in a picture, b one of the wrong
    // size, '.' nothing. Before each the audio clock is behind, or ten frames
    // ahead exactly (E), or a sample more (J): only then does the video clock
    // jump ten frames, which leaves a gap. The last picture repeats, past a
    // wrong size too. The width makes lines padded beyond it. What the encoder
    // gets is BT.601 at limited range, as H.264 players read it, within 2
    // levels: a swap of red and blue, full range or another matrix are all
    // further off than that.
    void videoSteps()
    {
        const QSize size(34, 20);
        QTemporaryFile file;
        QVERIFY(file.open());
        {
            MuxerOutput output(&file, size, AudioFormat{AV_SAMPLE_FMT_S16, 44100, 2, 3});
            QVERIFY(output.valid = output.setUp());
            for (const QChar step : QString("..R.EbJG")) {
                output.audio.count = step == 'E' || step == 'J' ? (output.video.count + 10) * 1764 + (step == 'J') : 0;
                QCOMPARE(compareClocks(output), step == 'J');
                if ((output.imageFresh = QStringLiteral("RGb").contains(step)))
                    output.image = picture(step == 'b' ? size + QSize(2, 2) : size, step.toUpper());
                encodeVideoStep(output);
                const AVFrame& frame = *output.video.frame;
                const int yuv[] = {frame.data[0][10 * frame.linesize[0] + 16], frame.data[1][5 * frame.linesize[1] + 8],
                                   frame.data[2][5 * frame.linesize[2] + 8]};
                const int red[] = {81, 90, 240}, green[] = {145, 54, 34};
                for (int plane = 0; plane < 3 && (step == 'R' || step == 'G'); ++plane)
                    QVERIFY2(qAbs(yuv[plane] - (step == 'R' ? red : green)[plane]) <= 2, qPrintable(QString(step)));
            }
            QCOMPARE(recordedTime(output), 240ms);
            // Whole frames: in floating point 803 would read 1 ms short.
            output.pictureFrames = 803;
            QCOMPARE(recordedTime(output), 32120ms);
        }
        QVERIFY(!file.isOpen());
        const MediaProbe probe = MediaProbe::fromFile(file.fileName());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        QCOMPARE(QString("%1 %2 %3x%4").arg(video.codec, video.pixelFormat).arg(video.width).arg(video.height),
                 QString("h264 yuv420p 34x20"));
        QList<int> frames;
        for (const qint64 at : video.pts)
            frames.append(qRound(at * video.timeBase * 25));
        std::sort(frames.begin(), frames.end());
        QCOMPARE(frames, QList<int>({1, 2, 3, 4, 15, 16}));
        QCOMPARE(centres(probe.decodeVideo()), QString("RRRRRG"));
    }

    void lifecycle_data()
    {
        QTest::addColumn<bool>("full");
        QTest::newRow("a whole file") << false;
        QTest::newRow("a full disk midway") << true;
    }
    // The trailer is written at the stop, once, and the device closed at
    // destruction. On a full disk each refused packet gives a warning, and
    // the recording runs on until it is stopped.
    void lifecycle()
    {
        QFETCH(bool, full);
        const QSize size(320, 240);
        RefusingDevice device(full ? 150000 : 1 << 30);
        QVERIFY(device.open(QIODevice::WriteOnly));
        LogCapture log;
        auto pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
        pipeline->video = std::make_unique<FakeSource>(pipeline.get(), size);
        pipeline->target = std::make_unique<Muxer>(size, std::nullopt, &device, pipeline.get());
        Target* muxer = pipeline->target.get();
        QVERIFY(pipeline->start());
        auto feed = [&] { return muxer->writeVideo(picture(size, full ? 'N' : 'G'), noCaptureTime), true; };
        QTRY_VERIFY_WITH_TIMEOUT(feed() && (!full || log.warnings().size() >= 2), 60000);
        const auto before = muxer->recordedTime();
        QTRY_VERIFY_WITH_TIMEOUT(feed() && muxer->recordedTime() >= before + 400ms, 60000);
        pipeline->stop();
        const auto recorded = muxer->recordedTime();
        const QByteArray written = device.data();
        QVERIFY2(device.isOpen(), "closed at the stop");
        pipeline.reset();
        QVERIFY(!device.isOpen() && device.data() == written);
        const QStringList warnings = log.warnings();
        QVERIFY2(warnings.count("Error while writing output packet:  \"Operation not permitted\"") == warnings.size(),
                 qPrintable(warnings.join('\n')));
        if (full) {
            QVERIFY(device.refusals > 0 && written.size() <= device.limit);
            return;
        }
        QCOMPARE(written.count("moov"), 1);
        const MediaProbe probe = MediaProbe::fromData(written);
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(0);
        QCOMPARE(recorded, 40ms * video.pts.size());
        QCOMPARE(centres(probe.decodeVideo()), QString(video.pts.size(), 'G'));
        QVERIFY2(qAbs(video.duration - video.pts.size() * 0.04) < 0.041, qPrintable(QString::number(video.duration)));
    }

    void audioTracks_data()
    {
        QTest::addColumn<AudioFormat>("format");
        QTest::addColumn<int>("chunk");  // samples a chunk
        QTest::addColumn<bool>("timed");  // the inputs give capture times
        QTest::newRow("48 kHz becomes 44.1 kHz") << AudioFormat{AV_SAMPLE_FMT_FLT, 48000, 2, 0} << 1920 << true;
        QTest::newRow("mono becomes stereo; a rest of each chunk waits") << AudioFormat{AV_SAMPLE_FMT_FLT, 44100, 1, 0} << 1764 << false;
        QTest::newRow("planar") << AudioFormat{AV_SAMPLE_FMT_FLTP, 48000, 2, 0} << 1920 << false;
        QTest::newRow("short chunks add up") << AudioFormat{AV_SAMPLE_FMT_FLT, 44100, 2, 0} << 300 << true;
    }
    // Ticks driven one by one, the machine starving the loop of five whole
    // ticks now and then. Each tick encodes all the sound due by the
    // picture's time, the lost ticks' too: the queue holds at most two ticks
    // once the start is known, and the picture lasts the time recorded.
    // Whatever comes in, the track is AAC at 44.1 kHz in stereo. The encoder
    // gets whole frames only, a rest waiting for the next chunk: handed in short
    // it would replay the tail of the frame before, padded it would lengthen the
    // sound. So packets are a frame apart, the track keeps every sample of the
    // tone, at its pitch on both channels and without a silent stretch.
    void audioTracks()
    {
        QFETCH(AudioFormat, format);
        QFETCH(int, chunk);
        QFETCH(bool, timed);
        const CaptureTime t0 = 1800000000000000;
        QBuffer buffer;
        QVERIFY(buffer.open(QIODevice::WriteOnly));
        int elapsed = 0, sample = 0;  // ticks of real time; samples handed in
        {
            MuxerOutput output(&buffer, QSize(64, 48), format);
            QVERIFY(output.valid = output.setUp());
            const auto at = [&](qint64 samples) { return t0 + samples * 1000000 / format.sampleRate; };
            for (int tick = 1; tick <= 150; ++tick) {
                const int lost = tick % 40 ? 0 : 5;
                elapsed += 1 + lost;
                // What the inputs handed in by now, captured up to 10 ms before.
                const CaptureTime now = t0 + elapsed * 40000;
                for (; at(sample + chunk) <= now - 10000; sample += chunk)
                    output.audioQueue.append(AudioChunk{tone(format, sample, chunk), chunk, timed ? at(sample) : noCaptureTime});
                output.image = picture(QSize(64, 48), 'G');
                output.imageCaptured = timed ? now - 10000 : noCaptureTime;
                output.imageArrived = std::chrono::steady_clock::now();
                output.imageFresh = true;
                runTick(output, lost);
                if (output.timeline.start != noCaptureTime || !timed)
                    QVERIFY2(output.audioQueue.queuedSamples() <= 2 * format.sampleRate / 25,
                             qPrintable(QString("%1 samples wait at tick %2").arg(output.audioQueue.queuedSamples()).arg(tick)));
            }
            QCOMPARE(recordedTime(output), 40ms * elapsed);
        }
        const MediaProbe probe = MediaProbe::fromData(buffer.data());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream track = probe.streams.value(probe.streamIndex("audio"));
        const double picture = probe.streams.value(probe.streamIndex("video")).duration;
        QVERIFY2(qAbs(picture - elapsed * 0.04) < 0.05, qPrintable(QString("a picture of %1 s").arg(picture)));
        QCOMPARE(QString("%1 %2 %3").arg(track.codec).arg(track.sampleRate).arg(track.channels), QString("aac 44100 2"));
        // Whole frames, but for the short last one that ends the sound.
        for (int i = 1; i + 1 < track.pts.size(); ++i)
            QCOMPARE(track.pts[i] - track.pts[i - 1], qint64(1024));
        // As long as the sound handed in; timed, it ends with the picture.
        const double length = double(sample) / format.sampleRate;
        QVERIFY2(qAbs(track.duration - length) < 0.08, qPrintable(QString("%1 s of %2 s").arg(track.duration).arg(length)));
        const QVector<float> sound = probe.decodeAudio();
        const QString wrong = checkTone(sound, 2, 44100, 440);
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
        int quiet = 0, longest = 0;
        for (int i = 44100 / 2; i < sound.size() / 2 - 44100 / 2; ++i)
            longest = qMax(longest, quiet = qAbs(sound[2 * i]) < 0.01f ? quiet + 1 : 0);
        QVERIFY2(longest < 5, qPrintable(QString("a silence of %1 samples").arg(longest)));
    }

    // Where the inputs tell when they captured, what was captured together plays
    // together: sound from before the picture's start is cut off, a gap in the
    // sound becomes as much silence, and the sound ends with the picture.
    void capturedTogether()
    {
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
            MuxerOutput output(&file, size, AudioFormat{AV_SAMPLE_FMT_S16, 48000, 2, 3});
            QVERIFY(output.valid = output.setUp());
            // The sound begins 0.3 s before the first image; 1.1 s of it, from
            // 4.9 s on, never comes. The picture stops first: the sound goes on
            // 0.3 s longer.
            const CaptureTime soundFrom = t0 - 300000;
            qint64 sample = 0;
            const auto soundAt = [&] { return soundFrom + sample * 1000000 / 48000; };
            for (int tick = 1; tick <= 250; ++tick) {
                const CaptureTime captured = t0 + tick * 40000;
                output.image = picture(size, on(captured, 200) ? 'W' : 'B');
                output.imageCaptured = captured;
                output.imageFresh = true;
                encodeVideoStep(output);
                for (CaptureTime at = soundAt(); at < captured; at = soundAt()) {
                    QByteArray chunk(1920 * 4, '\0');
                    auto* pcm = reinterpret_cast<int16_t*>(chunk.data());
                    for (int i = 0; i < 1920; ++i) {
                        if (on(soundFrom + (sample + i) * 1000000 / 48000, 100))
                            pcm[2 * i] = pcm[2 * i + 1] = int16_t(20000 * std::sin(2 * M_PI * 1000 * (sample + i) / 48000.0));
                    }
                    if (at < t0 + 4900000 || at >= t0 + 6000000)
                        output.audioQueue.append(AudioChunk{chunk, 1920, at});
                    sample += 1920;
                }
                encodeAudioStep(output);
            }
            for (const CaptureTime end = soundAt() + 300000; soundAt() < end; sample += 1920)
                output.audioQueue.append(AudioChunk{QByteArray(1920 * 4, '\0'), 1920, soundAt()});
        }
        const MediaProbe probe = MediaProbe::fromFile(file.fileName());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        const ProbedStream audio = probe.streams.value(probe.streamIndex("audio"));
        QVERIFY2(qAbs(audio.duration - video.duration) < 0.03,
                 qPrintable(QString("sound %1 s, picture %2 s").arg(audio.duration).arg(video.duration)));

        // Where the flashes and the beeps begin, in seconds of the file.
        QList<double> flashes, beeps;
        const QString names = centres(probe.decodeVideo());
        QVector<qint64> pts = video.pts;
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
        // The beep before the start is not there, nor the one of the gap (at 5 s).
        flashes.removeAt(2);
        QCOMPARE(beeps.size(), flashes.size());
        for (int i = 0; i < beeps.size(); ++i)
            QVERIFY2(qAbs(beeps[i] - flashes[i]) < 0.005, qPrintable(QString("flash at %1 s, beep at %2 s").arg(flashes[i]).arg(beeps[i])));
    }
};

QTEST_MAIN(MuxerTest)

#include "MuxerTest.moc"
