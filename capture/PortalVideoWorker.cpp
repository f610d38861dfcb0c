#include "PortalVideoWorker.h"

#include "FrameFitter.h"
#include "PipeWireStream.h"
#include "ScreenCastPortal.h"
#include "pipeline/Logging.h"
#include "pipeline/Pipeline.h"

#include <QGuiApplication>
#include <QImage>
#include <QScreen>

#include <condition_variable>
#include <ctime>
#include <exception>
#include <mutex>

// Threads: the GUI thread asks the portal and opens the stream in the
// constructor, and tears both down once the worker's thread has ended.
// PipeWire's loop thread (the stream's) cuts each picture into an image and
// leaves it in the mailbox; the worker's thread takes it from there and hands
// it on. The mailbox's mutex is held for a few assignments, never across a
// call into PipeWire or the pipeline.

namespace orvane {

using plugin::interface::VideoDevice;

namespace {

// A stream that has started sends its first picture within a frame or two;
// one that has not by then would hold the host's GUI thread.
constexpr std::chrono::seconds firstFrameTimeout(3);
// How long the worker waits for a picture before it looks at a stop request
// again.
constexpr std::chrono::milliseconds iteration(20);
// Older stamps are taken for another clock's.
constexpr int64_t oldestPtsNs = 60'000'000'000;

int64_t clockNow(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return int64_t(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// As the screen grabber does, a region of the screen's size is the whole
// screen, wherever it says it lies.
QRect regionOfPicture(const QSize& screen, const QRect& region)
{
    return region.size() == screen ? QRect(QPoint(), screen) : region;
}

} // namespace

CaptureTime monotonicToCaptureTime(int64_t ptsNs, int64_t monotonicNowNs, CaptureTime systemNowUs)
{
    const int64_t age = monotonicNowNs - ptsNs;
    if (ptsNs <= 0 || age < 0 || age > oldestPtsNs)
        return systemNowUs;
    return systemNowUs - age / 1000;
}

// Where the stream's thread leaves the newest picture, or the stream's end.
struct Mailbox
{
    std::mutex mutex;
    std::condition_variable changed;
    QImage image;  // null once taken
    CaptureTime captured = noCaptureTime;
    QString ended;
};

// Everything the worker works with: the portal's session and the stream,
// opened in the constructor, and the mailbox between them.
struct PortalInput
{
    PortalInput(const VideoDevice& device, const QRect& region)
        : device(device)
        , region(region)
        , fitter(regionOfPicture(device.geometry.size().toSize(), region), QRect(), device.geometry.size().toSize())
    {
    }

    bool open();
    void take(const BorrowedFrame& frame);

    const VideoDevice device;
    const QRect region;
    // The stream's thread's. The picture is the whole screen, a scaled
    // monitor's perhaps at its own resolution rather than Qt's.
    FrameFitter fitter;
    Mailbox mailbox;
    ScreenCastPortal portal;
    PipeWireStream stream;  // ends before the session and the mailbox do
    bool valid = false;
};

bool PortalInput::open()
{
    if (!portal.share())
        return false;
    const std::vector<SharedStream>& streams = portal.streams();
    const QScreen* screen = QGuiApplication::screens().value(device.screen.toInt());
    const int index = streamForScreen(streams, device.geometry, screen ? screen->devicePixelRatio() : 1.0);
    if (index < 0) {
        const auto text = [](const QRectF& r) {
            return QStringLiteral("%1x%2+%3+%4").arg(r.width()).arg(r.height()).arg(r.x()).arg(r.y());
        };
        QStringList picked;
        for (const SharedStream& s : streams)
            picked << (s.size ? text(QRectF(s.position.value_or(QPoint()), *s.size)) : QStringLiteral("a monitor of unknown size"));
        qCWarning(lcScreenReel).noquote() << "the monitor picked in the system's dialog ("
                                          + picked.join(QStringLiteral(", ")) + ") is not the screen to record ("
                                          + text(device.geometry) + ")";
        return false;
    }
    const auto ended = [this](const QString& reason) {
        {
            std::lock_guard<std::mutex> lock(mailbox.mutex);
            mailbox.ended = reason;
        }
        mailbox.changed.notify_one();
    };
    if (!stream.open(portal.takeRemote(), streams[size_t(index)].node,
                     [this](const BorrowedFrame& frame) { take(frame); }, ended))
        return false;
    std::unique_lock<std::mutex> lock(mailbox.mutex);
    mailbox.changed.wait_for(lock, firstFrameTimeout, [this] { return !mailbox.image.isNull() || !mailbox.ended.isEmpty(); });
    if (mailbox.image.isNull()) {
        if (mailbox.ended.isEmpty())
            qCWarning(lcScreenReel) << "the shared screen sent no picture within" << firstFrameTimeout.count() << "s";
        else
            qCWarning(lcScreenReel).noquote() << "the shared screen sent no picture: " + mailbox.ended;
        return false;
    }
    return true;
}

void PortalInput::take(const BorrowedFrame& frame)
{
    const QImage image = fitter.fit(frame.picture);
    if (image.isNull()) {
        qCWarning(lcScreenReel) << "Unable to create frame";
        return;
    }
    const CaptureTime captured =
            monotonicToCaptureTime(frame.ptsNs, clockNow(CLOCK_MONOTONIC), clockNow(CLOCK_REALTIME) / 1000);
    {
        std::lock_guard<std::mutex> lock(mailbox.mutex);
        mailbox.image = image;
        mailbox.captured = captured;
    }
    mailbox.changed.notify_one();
}

PortalVideoWorker::PortalVideoWorker(const VideoDevice& device, const QRect& region, Pipeline* pipeline)
    : PartThread(QStringLiteral("VideoWorker"), pipeline)
    , Source(pipeline)
    , input(std::make_unique<PortalInput>(device, region))
{
    // The host may stop the recording while the user still decides.
    const QMetaObject::Connection cancel =
            connect(pipeline, &Pipeline::openingCancelled, this, [this] { input->portal.cancel(); });
    input->valid = input->open();
    disconnect(cancel);
}

PortalVideoWorker::~PortalVideoWorker()
{
    stop();
}

bool PortalVideoWorker::start()
{
    return startIf(input->valid);
}

void PortalVideoWorker::stop()
{
    // The loop looks at the request after every short wait.
    stopAndWait();
}

QSize PortalVideoWorker::videoSize()
{
    return input->valid ? input->region.size() : QSize(0, 0);
}

void PortalVideoWorker::run()
{
    setPriority(QThread::TimeCriticalPriority);
    Mailbox& box = input->mailbox;
    try {
        // Every picture handed on is new: the consumer repeats the last one
        // while a still screen sends none.
        while (!isInterruptionRequested()) {
            QImage image;
            CaptureTime captured = noCaptureTime;
            QString ended;
            {
                std::unique_lock<std::mutex> lock(box.mutex);
                box.changed.wait_for(lock, iteration, [&] { return !box.image.isNull() || !box.ended.isEmpty(); });
                std::swap(image, box.image);
                captured = box.captured;
                ended = box.ended;
            }
            if (!image.isNull())
                pushImage(image, captured);
            if (!ended.isEmpty()) {
                qCWarning(lcScreenReel).noquote() << "the screen share ended: " + ended;
                abort();
                return;
            }
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
