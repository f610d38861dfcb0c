#include "VideoWorker.h"

#include "FrameFitter.h"
#include "OpenInput.h"
#include "Platform.h"
#include "pipeline/Logging.h"

#include <QImage>
#include <QSysInfo>
#include <QtDebug>

#include <exception>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/hwcontext.h>
#include <libswscale/swscale.h>
}

namespace orvane {

using plugin::interface::VideoDevice;

namespace {

constexpr DecodeLog decodeLog{"Error sending a packet for decoding: ", true, "Error during decoding", false};

// The 32-bit layouts that go straight to the fitter; swscale turns any other
// format into RGB32 first.
bool isDirect(int format, PixelLayout* layout = nullptr)
{
    switch (format) {
    case AV_PIX_FMT_BGR0:
    case AV_PIX_FMT_BGRA:
        if (layout)
            *layout = PixelLayout::bgrx;
        return true;
    case AV_PIX_FMT_RGB0:
    case AV_PIX_FMT_RGBA:
        if (layout)
            *layout = PixelLayout::rgbx;
        return true;
    default:
        return false;
    }
}

void releaseFrame(void* frame)
{
    auto* held = static_cast<AVFrame*>(frame);
    av_frame_free(&held);
}

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
    ~VideoInput()
    {
        av_dict_free(&options);
        sws_freeContext(converter);
    }

    bool selectInput();
    QByteArray buildGrabGraph() const;
    void fillOptions();

    const VideoDevice device;
    const QRect region;
    const QRectF grabbed;  // the part of the desktop the grabber delivers
    AVDictionary* options = nullptr;
    // Formats other than the direct ones: the converter and the whole
    // picture in RGB32, both made at the first such frame.
    SwsContext* converter = nullptr;
    QImage converted;
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

    if (!isDirect(codecContext->pix_fmt) && !sws_isSupportedInput(codecContext->pix_fmt)) {
        qCWarning(lcScreenReel) << "unable to convert the picture of device [" << device.name << "]";
        return false;
    }
    av_dump_format(formatContext, streamIndex, deviceName.constData(), 0);
    return true;
}

// The region's image out of a decoded frame. A frame that already is that
// image is handed on as it is, holding a reference to its buffer: the
// grabber takes a new buffer for each frame while one is held, so the image
// never changes. Any other frame is copied or converted into the fitter's
// images.
QImage takeFrame(VideoInput& in, FrameFitter& fitter, const AVFrame& frame)
{
    Picture picture{frame.data[0], frame.linesize[0], QSize(frame.width, frame.height)};
    if (isDirect(frame.format, &picture.layout)) {
        if (frame.buf[0] && fitter.isImage(picture)) {
            AVFrame* held = av_frame_clone(&frame);
            if (!held)
                return QImage();
            // Read-only: a consumer that wrote to it would get a copy.
            const QImage image(static_cast<const uchar*>(frame.data[0]), frame.width, frame.height,
                               frame.linesize[0], QImage::Format_RGB32, releaseFrame, held);
            if (image.isNull())
                av_frame_free(&held);
            return image;
        }
        return fitter.fit(picture);
    }
    if (picture.size.isEmpty())
        return QImage();
    in.converter = sws_getCachedContext(in.converter, frame.width, frame.height, AVPixelFormat(frame.format),
                                        frame.width, frame.height, AV_PIX_FMT_BGRA, SWS_POINT, nullptr, nullptr,
                                        nullptr);
    if (in.converted.size() != picture.size)
        in.converted = QImage(picture.size, QImage::Format_RGB32);
    if (!in.converter || in.converted.isNull())
        return QImage();
    uint8_t* planes[4] = {in.converted.bits(), nullptr, nullptr, nullptr};
    const int strides[4] = {int(in.converted.bytesPerLine()), 0, 0, 0};
    sws_scale(in.converter, frame.data, frame.linesize, 0, frame.height, planes, strides);
    return fitter.fit({in.converted.constBits(), int(in.converted.bytesPerLine()), picture.size, PixelLayout::bgrx});
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
            const QImage out = takeFrame(in, fitter, frame);
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
