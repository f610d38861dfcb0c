#include "VideoWorker.h"

#include "OpenInput.h"
#include "Platform.h"
#include "pipeline/Logging.h"

#include <QImage>
#include <QSysInfo>
#include <QtDebug>

#include <array>
#include <atomic>
#include <exception>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/hwcontext.h>
}

#include <libyuv/convert_from_argb.h>
#include <libyuv/planar_functions.h>

namespace orvane {

using plugin::interface::VideoDevice;

namespace {

constexpr DecodeLog decodeLog{"Error sending a packet for decoding: ", true, "Error during decoding", false};

// Converts rows of a grabbed format into BGR24, with libyuv's signature.
struct RowConverter
{
    int (*convert)(const uint8_t* source, int sourceStride, uint8_t* destination,
                   int destinationStride, int width, int height) = nullptr;
    int bytesPerPixel = 0;
};

int copyBgr24(const uint8_t* source, int sourceStride, uint8_t* destination, int destinationStride,
              int width, int height)
{
    libyuv::CopyPlane(source, sourceStride, destination, destinationStride, width * 3, height);
    return 0;
}

// libyuv names a format by its little-endian word: its ARGB is BGR0 or BGRA
// in memory, its RGB24 is BGR24 and its RAW is RGB24, so the byte-swapping
// ARGBToRAW turns RGB0 into BGR24.
RowConverter rowConverter(int format)
{
    switch (format) {
    case AV_PIX_FMT_BGR0:
    case AV_PIX_FMT_BGRA:
        return {libyuv::ARGBToRGB24, 4};
    case AV_PIX_FMT_RGB0:
    case AV_PIX_FMT_RGBA:
        return {libyuv::ARGBToRAW, 4};
    case AV_PIX_FMT_BGR24:
        return {copyBgr24, 3};
    default:
        return {};
    }
}

// Turns decoded frames into the images handed on: of exactly the region's
// size, parts outside the screen black. The pixels go straight from the
// frame into a buffer that no consumer holds any longer, so a handed-over
// picture is never written again, and neither a copy nor a new buffer is
// needed per frame while the consumers let go of older pictures in time.
class FrameFitter
{
public:
    // Where the grabbed part lies in the region's image; null when the
    // grabber delivers the whole screen, out of which the region is cut.
    static QRect placement(const QRectF& screen, const QRect& region, const QRectF& grabbed);

    FrameFitter(const QRect& region, const QRect& place);
    // A null image when the frame's format has no converter or no buffer can
    // be had.
    QImage fit(const AVFrame& frame);

private:
    QImage* buffer(QSize size, const QRect& written);

    const QRect region;
    const QRect place;
    // Enough for the one being written, the newest (the encoder's and the
    // preview's) and an older one the encoder still converts or a paint
    // still scales. Only when both read older ones at once is another made.
    std::array<QImage, 3> buffers;
    size_t next = 0;
};

} // namespace

// Everything the video thread works with, opened in the constructor.
struct VideoInput : CaptureInput
{
    VideoInput(const VideoDevice& device, const QRect& region)
        : CaptureInput(AVMEDIA_TYPE_VIDEO)
        , device(device)
        , region(region)
        , grabbed(platform::grabArea(device.geometry, region))
    {
    }
    ~VideoInput() { av_dict_free(&options); }

    bool selectInput();
    QByteArray buildGrabGraph() const;
    void fillOptions();

    const VideoDevice device;
    const QRect region;
    const QRectF grabbed;  // the part of the desktop the grabber delivers
    AVDictionary* options = nullptr;
};

QByteArray VideoInput::buildGrabGraph() const
{
    return "ddagrab=" + device.screen + ",hwdownload,format=bgra";
}

void VideoInput::fillOptions()
{
    const QRectF& geometry = grabbed;
    const QString size = QStringLiteral("%1x%2").arg(geometry.width(), 0, 'g', -1, QLatin1Char(' '))
                             .arg(geometry.height(), 0, 'g', -1, QLatin1Char(' '));
    av_dict_set(&options, "video_size", size.toLocal8Bit().constData(), 0);
    av_dict_set(&options, "rtbufsize", "1000M", 0);
    av_dict_set(&options, platform::offsetXOption(),
                QString::number(geometry.x(), 'g', 6).toLocal8Bit().constData(), 0);
    av_dict_set(&options, platform::offsetYOption(),
                QString::number(geometry.y(), 'g', 6).toLocal8Bit().constData(), 0);
    av_dict_set(&options, "framerate", "25", 0);
    av_dict_set(&options, "show_region", "1", 0);
    // The grabber runs at the rate asked for. Estimating it reads frames up to
    // the probe size, which one frame of a large screen already exceeds, and
    // then warns that it could not.
    av_dict_set(&options, "fpsprobesize", "0", 0);
}

bool VideoInput::selectInput()
{
    inputFormat = av_find_input_format("lavfi");
    fillOptions();
    QByteArray graph = buildGrabGraph();

    AVBufferRef* hardware = nullptr;
    const bool probeSucceeded =
        av_hwdevice_ctx_create(&hardware, AV_HWDEVICE_TYPE_D3D11VA, nullptr, nullptr, 0) == 0;
    av_buffer_unref(&hardware);
    const std::vector<DisplayAdapter> adapters = platform::displayAdapters();
    const bool dedicatedGpu = hasDedicatedGpu(adapters);

    const QByteArray deviceName = device.name.toLocal8Bit();
    if (useDuplicationGrabber(QSysInfo::productVersion(), probeSucceeded, dedicatedGpu)) {
        if (device.geometry.height() > device.geometry.width())
            graph += ",transpose=1";
        if (!openInput(*this, graph.constData(), device.name, &options))
            return false;
    } else {
        if (dedicatedGpu)
            qDebug() << "Dedicated GPU found, using gdigrab.";
        else
            qDebug() << "Falling back to gdigrab because d3d11va is not available...";
        inputFormat = av_find_input_format(platform::desktopGrabber());
        av_dict_free(&options);
        fillOptions();
        if (!openInput(*this, platform::desktopUrl().constData(), device.name, &options))
            return false;
    }

    if (!rowConverter(codecContext->pix_fmt).convert) {
        qCWarning(lcScreenReel) << "unable to convert the picture of device [" << device.name << "]";
        return false;
    }
    av_dump_format(formatContext, streamIndex, deviceName.constData(), 0);
    return true;
}

QRect FrameFitter::placement(const QRectF& screen, const QRect& region, const QRectF& grabbed)
{
    if (grabbed == screen)
        return {};
    return QRect((grabbed.topLeft() - screen.topLeft()).toPoint() - region.topLeft(), grabbed.size().toSize());
}

FrameFitter::FrameFitter(const QRect& region, const QRect& place)
    : region(region)
    , place(place)
{
}

QImage FrameFitter::fit(const AVFrame& frame)
{
    const RowConverter convert = rowConverter(frame.format);
    const QSize frameSize(frame.width, frame.height);
    if (!convert.convert || frameSize.isEmpty())
        return QImage();
    // The whole screen: the image follows the frame, so nothing is written
    // beyond it even when the screen changes its size, and the region is cut
    // out of it. A grabbed part of the region: the frame goes to its place in
    // an image of the region's size, the rest of which stays black.
    const bool whole = place.isNull();
    const QSize size = whole ? frameSize : region.size();
    const QRect target = whole ? QRect(QPoint(), size) : QRect(place.topLeft(), frameSize) & QRect(QPoint(), size);
    QImage* image = buffer(size, target);
    if (!image)
        return QImage();
    if (!target.isEmpty()) {
        const QPoint from = whole ? QPoint() : target.topLeft() - place.topLeft();
        const uint8_t* source = frame.data[0] + ptrdiff_t(from.y()) * frame.linesize[0] + from.x() * convert.bytesPerPixel;
        uint8_t* destination = image->bits() + ptrdiff_t(target.y()) * image->bytesPerLine() + target.x() * 3;
        convert.convert(source, frame.linesize[0], destination, int(image->bytesPerLine()), target.width(),
                target.height());
    }
    // An image of the region's size is handed on whole, shared, whatever
    // the region's position says.
    return region.size() == image->size() ? *image : image->copy(region);
}

QImage* FrameFitter::buffer(QSize size, const QRect& written)
{
    QImage* empty = nullptr;
    for (QImage& image : buffers) {
        if (image.size() != size) {
            image = QImage();
            if (!empty)
                empty = &image;
        } else if (image.isDetached()) {
            // Its last consumer has let go: what that one read happens before
            // what is written now. (ThreadSanitizer models no fences, and it
            // does not see the writes, which libyuv makes.)
#ifndef __SANITIZE_THREAD__
            std::atomic_thread_fence(std::memory_order_acquire);
#endif
            return &image;
        }
    }
    // None free: a new buffer takes an empty place, or that of a held one,
    // whose holders keep their picture.
    QImage* slot = empty ? empty : &buffers[next++ % buffers.size()];
    *slot = QImage(size, QImage::Format_BGR888);
    if (slot->isNull())
        return nullptr;
    // What the frames never cover stays black; the rest is written anyway.
    if (written != slot->rect())
        slot->fill(0);
    return slot;
}

VideoWorker::VideoWorker(const VideoDevice& device, const QRect& region, Pipeline* pipeline)
    : PartThread(QStringLiteral("VideoWorker"), pipeline)
    , Source(pipeline)
    , input(std::make_unique<VideoInput>(device, region))
{
    input->valid = input->selectInput();
}

VideoWorker::~VideoWorker()
{
    stop();
}

bool VideoWorker::start()
{
    return startIf(input->valid);
}

void VideoWorker::stop()
{
    stopAndWait();
}

QSize VideoWorker::videoSize()
{
    return input->valid ? input->region.size() : QSize(0, 0);
}

void VideoWorker::run()
{
    setPriority(QThread::TimeCriticalPriority);
    VideoInput& in = *input;
    const bool timed = platform::screenTimesOnSystemClock();
    try {
        FrameFitter fitter(in.region, FrameFitter::placement(in.device.geometry, in.region, in.grabbed));
        // Made once: the loop runs for every packet.
        const std::function<bool(const AVFrame&)> take = [&](const AVFrame& frame) {
            const QImage out = fitter.fit(frame);
            if (out.isNull()) {
                qCWarning(lcScreenReel) << "Unable to create frame";
                return false;
            }
            pushImage(out, captureTime(in.formatContext, in.streamIndex, &frame, timed));
            return true;
        };
        while (!isInterruptionRequested()) {
            int result = av_read_frame(in.formatContext, in.packet);
            if (result == AVERROR(EAGAIN))
                continue;
            if (result < 0) {
                qCWarning(lcScreenReel) << "Error reading frame" << result;
                break;
            }
            decodePacket(in.codecContext, in.streamIndex, in.packet, in.frame, decodeLog, take);
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
