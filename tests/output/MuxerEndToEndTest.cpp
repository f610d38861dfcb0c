// The screen and the test tone recorded into a file and read back: every
// picture recorded is there, and the sound is the tone and lasts as long.

#include "capture/AudioWorker.h"
#include "capture/VideoWorker.h"
#include "output/Muxer.h"
#include "pipeline/Pipeline.h"
#include "support/MediaProbe.h"

#include <QGuiApplication>
#include <QScreen>
#include <QtTest>

extern "C" {
#include <libavutil/log.h>
}

using namespace orvane;
using namespace orvane::test;
using namespace std::chrono_literals;

class MuxerEndToEndTest : public QObject
{
    Q_OBJECT

private slots:
    void screenAndTone();
};

void MuxerEndToEndTest::screenAndTone()
{
    av_log_set_level(AV_LOG_ERROR);
    QTemporaryFile file;
    QVERIFY(file.open());
    std::chrono::milliseconds recorded;
    {
        auto pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
        const QRect screen = QGuiApplication::primaryScreen()->geometry();
        pipeline->audio = std::make_unique<AudioWorker>(plugin::interface::AudioDevice{"0", "reel.monitor", true},
                                                        pipeline.get());
        pipeline->video = std::make_unique<VideoWorker>(plugin::interface::VideoDevice{{}, "0", "screen", screen, nullptr},
                                                        QRect(0, 0, 320, 240), pipeline.get());
        pipeline->target = std::make_unique<Muxer>(QSize(320, 240), pipeline->audio->audioFormat(), &file, pipeline.get());
        QVERIFY(pipeline->start());
        QTRY_VERIFY_WITH_TIMEOUT(pipeline->recordedTime() >= 3000ms, 60000);
        pipeline->stop();
        recorded = pipeline->recordedTime();
    }

    const MediaProbe probe = MediaProbe::fromFile(file.fileName());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QCOMPARE(40ms * probe.decodeVideo().size(), recorded);

    const ProbedStream audio = probe.streams.value(probe.streamIndex("audio"));
    QCOMPARE(audio.codec, QString("aac"));
    const QString wrong = checkTone(probe.decodeAudio(), audio.channels, audio.sampleRate, 440);
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
    const double picture = probe.streams.value(probe.streamIndex("video")).duration;
    QVERIFY2(qAbs(audio.duration - picture) < 0.3, qPrintable(QString("sound %1 s, picture %2 s").arg(audio.duration).arg(picture)));
}

QTEST_MAIN(MuxerEndToEndTest)

#include "MuxerEndToEndTest.moc"
