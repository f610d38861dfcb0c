#include "capture/VideoWorker.h"
#include "pipeline/Pipeline.h"
#include "plugin/Plugin.h"

#include <QCursor>
#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>
#include <QScreen>
#include <QTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

using namespace orvane;
using plugin::interface::VideoDevice;

namespace {

// A frameless window over the whole screen: four coloured quadrants, or one
// colour all over.
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

// Keeps what the video thread hands over: the first image with a copy of its
// pixels as they were at the hand-over, and the newest few.
class RecordingTarget : public Target
{
public:
    using Target::Target;

    bool start() override { return true; }
    void stop() override {}
    std::chrono::milliseconds recordedTime() override { return {}; }
    void writeVideo(const QImage& image) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (first.isNull()) {
            first = image;
            firstPixels = image.copy();
        }
        latest = image;
        ++count;
    }
    void writeAudio(const QByteArray&, qint64) override {}

    int images() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return count;
    }
    QImage newest() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return latest;
    }

    mutable std::mutex mutex;
    QImage first;
    QImage firstPixels;
    QImage latest;
    int count = 0;
};

struct Recording
{
    Recording(const VideoDevice& device, const QRect& region)
        : pipeline(nullptr, nullptr)
    {
        pipeline.video = std::make_unique<VideoWorker>(device, region, &pipeline);
        target = new RecordingTarget(&pipeline);
        pipeline.target.reset(target);
    }

    Pipeline pipeline;
    RecordingTarget* target = nullptr;
};

const char* const fallback = "Falling back to gdigrab because d3d11va is not available...";

// A frame as the grabber delivers it (bgr0), of one colour.
std::unique_ptr<AVFrame, void (*)(AVFrame*)> grabbedFrame(const QSize& size, const QColor& colour)
{
    std::unique_ptr<AVFrame, void (*)(AVFrame*)> frame(av_frame_alloc(),
                                                       [](AVFrame* f) { av_frame_free(&f); });
    frame->format = AV_PIX_FMT_BGR0;
    frame->width = size.width();
    frame->height = size.height();
    if (av_frame_get_buffer(frame.get(), 0) < 0)
        return frame;
    for (int y = 0; y < size.height(); ++y) {
        uint8_t* pixel = frame->data[0] + y * frame->linesize[0];
        for (int x = 0; x < size.width(); ++x, pixel += 4) {
            pixel[0] = uint8_t(colour.blue());
            pixel[1] = uint8_t(colour.green());
            pixel[2] = uint8_t(colour.red());
            pixel[3] = 0;
        }
    }
    return frame;
}

} // namespace

class VideoWorkerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void regions_data();
    void regions();
    void handedOverImageStaysUnchanged();
    void deviceOutsideTheScreen();
    void framesOfChangingSize();

private:
    VideoDevice device;
    std::unique_ptr<Scene> scene;
};

void VideoWorkerTest::initTestCase()
{
    av_log_set_level(AV_LOG_ERROR);
    QScreen* screen = QGuiApplication::primaryScreen();
    QCOMPARE(screen->geometry(), QRect(0, 0, 1920, 1080));

    scene = std::make_unique<Scene>();
    scene->setTitle(QStringLiteral("Quadrants"));
    scene->setFlags(Qt::Window | Qt::FramelessWindowHint);
    scene->setGeometry(screen->geometry());
    scene->show();
    QVERIFY(QTest::qWaitForWindowExposed(scene.get()));
    // The grabber draws the pointer: keep it where nothing is sampled.
    QCursor::setPos(480, 810);
    QTest::qWait(300);

    Plugin plugin;
    for (const VideoDevice& d : plugin.videoDevices()) {
        if (d.name == scene->title())
            device = d;
    }
    QCOMPARE(device.geometry, QRectF(0, 0, 1920, 1080));
}

void VideoWorkerTest::regions_data()
{
    QTest::addColumn<QRect>("region");
    // Points of the image and the colour expected there.
    QTest::addColumn<QList<QPoint>>("points");
    QTest::addColumn<QList<QColor>>("colours");

    const QColor red(Qt::red), green(Qt::green), blue(Qt::blue), white(Qt::white), black(Qt::black);
    QTest::newRow("whole screen") << QRect(0, 0, 1920, 1080)
        << QList<QPoint>{{10, 10}, {1910, 10}, {10, 1070}, {1910, 1070}}
        << QList<QColor>{red, green, blue, white};
    QTest::newRow("part across the centre") << QRect(900, 500, 120, 80)
        << QList<QPoint>{{10, 10}, {110, 10}, {10, 70}, {110, 70}}
        << QList<QColor>{red, green, blue, white};
    QTest::newRow("part inside one quadrant") << QRect(1000, 10, 200, 100)
        << QList<QPoint>{{0, 0}, {199, 99}} << QList<QColor>{green, green};
    QTest::newRow("part sticking out right and below: black outside") << QRect(1860, 1040, 120, 80)
        << QList<QPoint>{{10, 10}, {100, 10}, {10, 60}, {100, 60}}
        << QList<QColor>{white, black, black, black};
    QTest::newRow("part left of and above the screen") << QRect(-20, -20, 100, 100)
        << QList<QPoint>{{5, 5}, {50, 5}, {50, 50}} << QList<QColor>{black, black, red};
    QTest::newRow("screen's size elsewhere: neither cut nor moved") << QRect(100, 100, 1920, 1080)
        << QList<QPoint>{{10, 10}, {1850, 10}, {10, 1070}, {1850, 1070}}
        << QList<QColor>{red, green, blue, white};
}

void VideoWorkerTest::regions()
{
    QFETCH(QRect, region);
    QFETCH(QList<QPoint>, points);
    QFETCH(QList<QColor>, colours);

    QTest::ignoreMessage(QtDebugMsg, fallback);
    Recording r(device, region);
    QCOMPARE(r.pipeline.video->videoSize(), region.size());
    QVERIFY(r.pipeline.start());
    QTRY_VERIFY_WITH_TIMEOUT(r.target->images() >= 3, 30000);
    r.pipeline.stop();

    // Nothing comes once stop has returned.
    const int handedOver = r.target->images();
    QTest::qWait(200);
    QCOMPARE(r.target->images(), handedOver);

    const QImage image = r.target->newest();
    QCOMPARE(image.format(), QImage::Format_BGR888);
    QCOMPARE(image.size(), region.size());
    for (int i = 0; i < points.size(); ++i) {
        const QColor seen = image.pixelColor(points.at(i));
        QVERIFY2(seen == colours.at(i),
                 qPrintable(QStringLiteral("at %1,%2: %3, expected %4")
                                .arg(points.at(i).x()).arg(points.at(i).y())
                                .arg(seen.name(), colours.at(i).name())));
    }
}

void VideoWorkerTest::handedOverImageStaysUnchanged()
{
    // With the whole screen kept the images share the working buffer until the
    // next frame detaches it.
    Recording r(device, QRect(0, 0, 1920, 1080));
    QVERIFY(r.pipeline.start());
    QTRY_VERIFY_WITH_TIMEOUT(r.target->images() >= 1, 30000);

    scene->fillWith(Qt::yellow);
    QTRY_VERIFY_WITH_TIMEOUT(r.target->newest().pixelColor(10, 10) == QColor(Qt::yellow), 30000);
    r.pipeline.stop();
    scene->fillWith(QColor());

    QCOMPARE(r.target->firstPixels.pixelColor(10, 10), QColor(Qt::red));
    QVERIFY2(r.target->first == r.target->firstPixels, "a handed-over image was written again");
}

void VideoWorkerTest::deviceOutsideTheScreen()
{
    VideoDevice huge = device;
    huge.name = QStringLiteral("Huge");
    huge.geometry = QRectF(0, 0, 4000, 3000);

    QTest::ignoreMessage(QtDebugMsg, fallback);
    QTest::ignoreMessage(QtWarningMsg, "unable to open device [ \"Huge\" ]");
    Recording r(huge, QRect(0, 0, 640, 480));
    QCOMPARE(r.pipeline.video->videoSize(), QSize(0, 0));
    QVERIFY(r.pipeline.video->audioFormat() == AudioFormat());
    QVERIFY(!r.pipeline.start());
    QCOMPARE(r.target->images(), 0);
}

void VideoWorkerTest::framesOfChangingSize()
{
    // The grabbed screen changes its size under a running capture: the
    // working image follows each frame, the images handed on keep the region's.
    SwsContext* scaler = nullptr;
    QImage image;
    const QRect region(8, 8, 40, 30);

    QImage out = convertFrame(*grabbedFrame({64, 48}, Qt::red), scaler, image, region);
    QCOMPARE(image.size(), QSize(64, 48));
    QCOMPARE(out.size(), region.size());
    QCOMPARE(out.pixelColor(39, 29), QColor(Qt::red));

    out = convertFrame(*grabbedFrame({96, 64}, Qt::green), scaler, image, region);
    QCOMPARE(image.size(), QSize(96, 64));
    QCOMPARE(out.size(), region.size());
    QCOMPARE(out.pixelColor(0, 0), QColor(Qt::green));

    // Smaller than the region's far corner: black beyond the frame.
    out = convertFrame(*grabbedFrame({32, 24}, Qt::blue), scaler, image, region);
    QCOMPARE(image.size(), QSize(32, 24));
    QCOMPARE(out.size(), region.size());
    QCOMPARE(out.pixelColor(2, 2), QColor(Qt::blue));
    QCOMPARE(out.pixelColor(30, 20), QColor(Qt::black));

    // A region of the frame's size: handed on whole and shared, until the
    // next frame goes to a buffer of its own.
    const QRect whole(5, 5, 32, 24);
    const QImage kept = convertFrame(*grabbedFrame({32, 24}, Qt::blue), scaler, image, whole);
    QCOMPARE(kept.constBits(), image.constBits());
    QCOMPARE(kept.pixelColor(0, 0), QColor(Qt::blue));
    out = convertFrame(*grabbedFrame({32, 24}, Qt::red), scaler, image, whole);
    QCOMPARE(out.pixelColor(0, 0), QColor(Qt::red));
    QCOMPARE(kept.pixelColor(0, 0), QColor(Qt::blue));
    sws_freeContext(scaler);
}

QTEST_MAIN(VideoWorkerTest)

#include "VideoWorkerTest.moc"
