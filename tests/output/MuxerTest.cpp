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
    QImage image(size, QImage::Format_RGB32);
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

// `count` samples of a 440 Hz tone at half scale from sample `from` on, where
// `on` says so, in float samples laid out as the format wants (planes one
// after the other).
QByteArray tone(const AudioFormat& format, int from, int count, const std::function<bool(int)>& on)
{
    const bool planar = av_sample_fmt_is_planar(format.sampleFormat);
    QVector<float> data(count * format.channels);
    for (int i = 0; i < count; ++i)
        for (int c = 0; c < format.channels; ++c)
            data[planar ? c * count + i : i * format.channels + c] = float(on(from + i) * 0.5 * std::sin(2 * M_PI * 440 * (from + i) / format.sampleRate));
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
                if ((output.imageFresh = QStringLiteral("RGb").contains(step)))
                    output.image = picture(step == 'b' ? size + QSize(2, 2) : size, step.toUpper());
                runTick(output, 0);
                // Y at (16, 10), U and V at (8, 5) of their half-size planes.
                const AVFrame& frame = *output.video.frame;
                const int red[] = {81, 90, 240}, green[] = {145, 54, 34};
                for (int p = 0; p < 3 && (step == 'R' || step == 'G'); ++p)
                    QVERIFY2(qAbs(frame.data[p][(p ? 5 : 10) * frame.linesize[p] + (p ? 8 : 16)] - (step == 'R' ? red : green)[p]) <= 2, qPrintable(QString(step)));
            }
            QCOMPARE(recordedTime(output), 240ms);
            // Whole frames: in floating point 803 would read 1 ms short.
            output.pictureFrames = 803;
            QCOMPARE(recordedTime(output), 32120ms);
        }
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

    // The clock's rules, each row a case and what it gives. A chunk of 100 ms
    // at 48 kHz meets a track whose next sample is due at 0 (the tolerance
    // 20 ms, silence at most 10 s): samples to cut from its head, of silence
    // before it, and of it kept.
    void clockRules_data()
    {
        QTest::addColumn<QList<qint64>>("got");
        QTest::addColumn<QList<qint64>>("expected");
        const auto place = [](int offsetMs, int endMs, int jitterMs = 0) {
            const Placement p = placeChunk(0, offsetMs * 1000, 4800, 48000, 20000, 480000, endMs ? endMs * 1000 : noCaptureTime, jitterMs * 1000);
            return QList<qint64>{p.skip, p.silence, p.keep, p.stretch};
        };
        QTest::newRow("jitter within the tolerance: left alone") << place(15, 0) << QList<qint64>{0, 0, 4800, 0};
        QTest::newRow("early: the overlap is cut") << place(-30, 0) << QList<qint64>{1440, 0, 3360, 0};
        QTest::newRow("wholly before the track: all cut") << place(-500, 0) << QList<qint64>{4800, 0, 0, 0};
        QTest::newRow("late: the gap becomes silence, ten seconds at most") << place(60000, 0) << QList<qint64>{0, 480000, 4800, 0};
        QTest::newRow("the end cuts the sound") << place(0, 50) << QList<qint64>{0, 0, 2400, 0};
        QTest::newRow("the end cuts a gap's silence") << place(100, 50) << QList<qint64>{0, 2400, 0, 0};
        // Under 80 ms of jitter, chunks 30 and 100 ms late.
        QTest::newRow("jitter stretches unbroken sound; a gap is still silence")
            << place(30, 0, 80) + place(100, 0, 80) << QList<qint64>{0, 0, 4800, 24, 0, 4800, 4800, 0};
        // A queue that holds 1000 samples: what stays of chunks appended in
        // turn, and the warnings.
        const auto queue = [](const QList<int>& chunks) {
            LogCapture log;
            AudioQueue queue(1000 / AudioQueue::maxSeconds);
            for (const int samples : chunks)
                queue.append(AudioChunk{{}, samples, noCaptureTime});
            return QList<qint64>{queue.queuedSamples(), log.warnings().size()};
        };
        QTest::newRow("queue: a second kept") << queue({400, 600}) << QList<qint64>{1000, 0};
        QTest::newRow("queue: beyond, the oldest go, one warning a spell") << queue({600, 600, 600}) << QList<qint64>{600, 1};
        QTest::newRow("queue: one chunk stays, however long") << queue({1500}) << QList<qint64>{1500, 0};
    }
    void clockRules()
    {
        QFETCH(QList<qint64>, got);
        QTEST(got, "expected");
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
        // Ticks a busy machine lost keep their time as gaps between frames:
        // the recorded time is the picture's span, not its frame count.
        const auto [first, last] = std::minmax_element(video.pts.begin(), video.pts.end());
        const double span = (*last - *first) * video.timeBase + 0.04;
        QCOMPARE(qRound(span * 1000), int(recorded.count()));
        QVERIFY2(qAbs(video.duration - span) < 0.041, qPrintable(QString::number(video.duration)));
    }

    void capturedTogether_data()
    {
        QTest::addColumn<AudioFormat>("format");
        QTest::addColumn<int>("chunk");  // samples a chunk
        QTest::newRow("mono becomes stereo; a rest of each chunk waits") << AudioFormat{AV_SAMPLE_FMT_FLT, 44100, 1, 0} << 1764;
        QTest::newRow("planar 48 kHz becomes 44.1 kHz") << AudioFormat{AV_SAMPLE_FMT_FLTP, 48000, 2, 0} << 1920;
        QTest::newRow("short chunks add up") << AudioFormat{AV_SAMPLE_FMT_FLT, 44100, 2, 0} << 300;
    }
    // Where the inputs tell when they captured, what was captured together plays
    // together: sound from before the picture's start is cut off, a gap in the
    // sound becomes as much silence, the sound ends with the picture, and ticks
    // the loop lost keep their time. Whatever comes in, the track is AAC at
    // 44.1 kHz in stereo. The encoder gets whole frames only, a rest waiting
    // for the next chunk: handed in short it would replay the tail of the frame
    // before, padded it would lengthen the sound. So packets are a frame apart,
    // and the beeps keep their pitch.
    void capturedTogether()
    {
        QFETCH(AudioFormat, format);
        QFETCH(int, chunk);
        const CaptureTime t0 = 1800000000000000;
        const int rate = format.sampleRate;
        // On from 1 s to 1.2 s of every 2 s after t0, and at -0.25 s.
        const auto on = [t0](CaptureTime at, int lengthMs) {
            const int64_t ms = (at - t0) / 1000;
            return (ms >= 0 && ms % 2000 >= 1000 && ms % 2000 < 1000 + lengthMs) || (ms >= -250 && ms < -150);
        };
        QTemporaryFile file;
        QVERIFY(file.open());
        {
            MuxerOutput output(&file, QSize(64, 48), format);
            QVERIFY(output.valid = output.setUp());
            // The sound begins 0.3 s before the first image; 1.1 s of it, from
            // 6.9 s on, never comes. It ends a little before the picture: a
            // silence fills the rest.
            const CaptureTime soundFrom = t0 - 300000;
            qint64 sample = 0;
            const auto soundAt = [&] { return soundFrom + sample * 1000000 / rate; };
            const auto beep = [&](int at) { return on(soundFrom + at * 1000000LL / rate, 100); };
            // Now and then the loop is starved of three whole ticks: the
            // tick after encodes their sound too, and their picture is the
            // one before.
            int elapsed = 0;
            for (int tick = 1; elapsed < 250; ++tick) {
                const int lost = tick % 40 ? 0 : 3;
                elapsed += 1 + lost;
                const CaptureTime captured = t0 + elapsed * 40000;
                output.image = picture(QSize(64, 48), on(captured, 200) ? 'W' : 'B');
                output.imageCaptured = captured;
                output.imageFresh = true;
                for (CaptureTime at = soundAt(); at < captured; sample += chunk, at = soundAt())
                    if (at < t0 + 6900000 || at >= t0 + 8000000)
                        output.audioQueue.append(AudioChunk{tone(format, int(sample), chunk, beep), chunk, at});
                runTick(output, lost);
                // Once the start is known, at most the sound of two ticks waits.
                QVERIFY2(output.timeline.start == noCaptureTime || output.audioQueue.queuedSamples() <= 2 * rate / 25,
                         qPrintable(QString("%1 samples wait at tick %2").arg(output.audioQueue.queuedSamples()).arg(tick)));
            }
            QCOMPARE(recordedTime(output), 40ms * elapsed);
        }
        const MediaProbe probe = MediaProbe::fromFile(file.fileName());
        QVERIFY2(probe.isValid(), qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        const ProbedStream audio = probe.streams.value(probe.streamIndex("audio"));
        QVERIFY2(qAbs(audio.duration - video.duration) < 0.03,
                 qPrintable(QString("sound %1 s, picture %2 s").arg(audio.duration).arg(video.duration)));
        QCOMPARE(QString("%1 %2 %3").arg(audio.codec).arg(audio.sampleRate).arg(audio.channels), QString("aac 44100 2"));
        // Whole frames, but for the short last one that ends the sound.
        for (int i = 1; i + 1 < audio.pts.size(); ++i)
            QCOMPARE(audio.pts[i] - audio.pts[i - 1], qint64(1024));

        // Where the flashes and the beeps begin, in seconds of the file.
        QList<double> flashes, beeps;
        const QString names = centres(probe.decodeVideo());
        QVector<qint64> pts = video.pts;
        std::sort(pts.begin(), pts.end());
        for (int i = 1; i < names.size(); ++i)
            if (names[i] == 'W' && names[i - 1] != 'W')
                flashes.append(pts.value(i) * video.timeBase);
        const QVector<float> sound = probe.decodeAudio();
        const QString wrong = checkTone(sound, 2, 44100, 440);
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
        for (int i = 0, quiet = 0; i < sound.size() / 2; ++i) {
            const bool loud = qAbs(sound[2 * i]) > 0.1f;
            if (loud && quiet > audio.sampleRate / 20)
                beeps.append(double(i) / audio.sampleRate);
            quiet = loud ? 0 : quiet + 1;
        }
        QCOMPARE(flashes.size(), 5);
        // The beep before the start is not there, nor the one of the gap (at 7 s).
        flashes.removeAt(3);
        QCOMPARE(beeps.size(), flashes.size());
        for (int i = 0; i < beeps.size(); ++i)
            QVERIFY2(qAbs(beeps[i] - flashes[i]) < 0.005, qPrintable(QString("flash at %1 s, beep at %2 s").arg(flashes[i]).arg(beeps[i])));
    }
};

QTEST_MAIN(MuxerTest)

#include "MuxerTest.moc"
