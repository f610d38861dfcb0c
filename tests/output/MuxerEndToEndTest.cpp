// A window of known content, grabbed by the video thread and recorded by the
// Muxer into a file, then read back.

#include "capture/VideoWorker.h"
#include "output/Muxer.h"
#include "pipeline/Pipeline.h"
#include "plugin/Plugin.h"
#include "support/MediaProbe.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QScreen>
#include <QTemporaryFile>
#include <QtTest>

#include <memory>

extern "C" {
#include <libavutil/log.h>
}

using namespace orvane;
using namespace std::chrono_literals;
using plugin::interface::VideoDevice;

namespace {

// Four coloured quadrants over the whole screen, or one colour all over.
class Scene : public QRasterWindow
{
public:
    void fillWith(const QColor& colour)
    {
        single = colour;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        if (single.isValid()) {
            painter.fillRect(QRect(QPoint(), size()), single);
            return;
        }
        const int w = width() / 2;
        const int h = height() / 2;
        painter.fillRect(0, 0, w, h, Qt::red);
        painter.fillRect(w, 0, width() - w, h, Qt::green);
        painter.fillRect(0, h, w, height() - h, Qt::blue);
        painter.fillRect(w, h, width() - w, height() - h, Qt::white);
    }

private:
    QColor single;
};

bool near(const QColor& a, const QColor& b)
{
    const int tolerance = 40;
    return qAbs(a.red() - b.red()) <= tolerance && qAbs(a.green() - b.green()) <= tolerance
        && qAbs(a.blue() - b.blue()) <= tolerance;
}

} // namespace

class MuxerEndToEndTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void recordsTheScreen();

private:
    VideoDevice device;
    std::unique_ptr<Scene> scene;
};

void MuxerEndToEndTest::initTestCase()
{
    av_log_set_level(AV_LOG_ERROR);
    QScreen* screen = QGuiApplication::primaryScreen();
    scene = std::make_unique<Scene>();
    scene->setTitle(QStringLiteral("Quadrants"));
    scene->setFlags(Qt::Window | Qt::FramelessWindowHint);
    scene->setGeometry(screen->geometry());
    scene->show();
    QVERIFY(QTest::qWaitForWindowExposed(scene.get()));
    // The grabber draws the pointer: keep it outside the recorded region.
    QCursor::setPos(10, 10);
    QTest::qWait(300);

    Plugin plugin;
    for (const VideoDevice& d : plugin.videoDevices()) {
        if (d.name == scene->title())
            device = d;
    }
    QVERIFY(!device.name.isEmpty());
}

// The quadrants around the screen's centre, then one colour: each shows in
// the decoded frames, and the file lasts as long as the time recorded.
void MuxerEndToEndTest::recordsTheScreen()
{
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    const QSize size(640, 360);
    const QRect region(screen.center() - QPoint(size.width() / 2, size.height() / 2) + QPoint(1, 1), size);
    QTemporaryFile file;
    QVERIFY(file.open());

    auto pipeline = std::make_unique<Pipeline>(nullptr, nullptr);
    pipeline->video = std::make_unique<VideoWorker>(device, region, pipeline.get());
    QCOMPARE(pipeline->video->videoSize(), size);
    pipeline->target = std::make_unique<Muxer>(size, std::nullopt, &file, pipeline.get());
    QVERIFY(pipeline->start());
    QTRY_VERIFY_WITH_TIMEOUT(pipeline->recordedTime() >= 1000ms, 60000);
    scene->fillWith(Qt::yellow);
    const auto switched = pipeline->recordedTime();
    QTRY_VERIFY_WITH_TIMEOUT(pipeline->recordedTime() >= switched + 1000ms, 60000);
    pipeline->stop();
    const auto recorded = pipeline->recordedTime();
    pipeline.reset();
    scene->fillWith(QColor());

    const test::MediaProbe probe = test::MediaProbe::fromFile(file.fileName());
    QVERIFY2(probe.isValid(), qPrintable(probe.error));
    QCOMPARE(probe.streams.size(), 1);
    QCOMPARE(QSize(probe.streams[0].width, probe.streams[0].height), size);
    const QVector<QImage> frames = probe.decodeVideo();
    QCOMPARE(std::chrono::milliseconds(40 * frames.size()), recorded);
    const double seconds = std::chrono::duration<double>(recorded).count();
    QVERIFY2(qAbs(probe.duration - seconds) <= 0.04 + 1e-6,
             qPrintable(QStringLiteral("file lasts %1 s, recorded %2 s").arg(probe.duration).arg(seconds)));

    // A frame from before the switch: the quadrants meet in the middle.
    const QImage& early = frames[frames.size() / 4];
    const int w = size.width(), h = size.height();
    const QList<QPair<QPoint, QColor>> quadrants{{{w / 4, h / 4}, Qt::red},
                                                 {{3 * w / 4, h / 4}, Qt::green},
                                                 {{w / 4, 3 * h / 4}, Qt::blue},
                                                 {{3 * w / 4, 3 * h / 4}, Qt::white}};
    for (const auto& [point, colour] : quadrants) {
        const QColor seen = early.pixelColor(point);
        QVERIFY2(near(seen, colour), qPrintable(QStringLiteral("%1,%2 is %3, not %4")
                                                    .arg(point.x()).arg(point.y())
                                                    .arg(seen.name(), QColor(colour).name())));
    }
    const QColor last = frames.last().pixelColor(w / 2, h / 2);
    QVERIFY2(near(last, Qt::yellow), qPrintable(last.name()));
}

QTEST_MAIN(MuxerEndToEndTest)

#include "MuxerEndToEndTest.moc"
