#include "VideoWorker.h"

#include "OpenInput.h"
#include "Platform.h"
#include "pipeline/Logging.h"
#include "pipeline/Pipeline.h"

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

// Everything the video thread works with, opened in the constructor.
struct VideoInput
{
    VideoInput(const VideoDevice& device, const QRect& region)
        : device(device)
        , region(region)
    {
    }
    ~VideoInput()
    {
        sws_freeContext(scaler);
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codecContext);
        avformat_close_input(&formatContext);
        av_dict_free(&options);
    }

    bool selectInput();
    QByteArray buildGrabGraph() const;
    void fillOptions();

    const VideoDevice device;
    const QRect region;
    bool valid = false;
    int streamIndex = -1;
    AVDictionary* options = nullptr;
    const AVInputFormat* inputFormat = nullptr;
    AVFormatContext* formatContext = nullptr;
    const AVCodec* codec = nullptr;
    AVCodecContext* codecContext = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
    SwsContext* scaler = nullptr;  // decoded frames to BGR24, no scaling
};

QByteArray VideoInput::buildGrabGraph() const
{
    return "ddagrab=" + device.screen + ",hwdownload,format=bgra";
}

void VideoInput::fillOptions()
{
    const QRectF& geometry = device.geometry;
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
        if (!openInput(graph.constData(), device.name, &streamIndex, &options, inputFormat,
                       &formatContext, &codec, &codecContext, &packet, &frame, AVMEDIA_TYPE_VIDEO))
            return false;
    } else {
        if (dedicatedGpu)
            qDebug() << "Dedicated GPU found, using gdigrab.";
        else
            qDebug() << "Falling back to gdigrab because d3d11va is not available...";
        inputFormat = av_find_input_format(platform::desktopGrabber());
        av_dict_free(&options);
        fillOptions();
        if (!openInput(platform::desktopUrl().constData(), device.name, &streamIndex, &options,
                       inputFormat, &formatContext, &codec, &codecContext, &packet, &frame,
                       AVMEDIA_TYPE_VIDEO))
            return false;
    }

    scaler = sws_getContext(codecContext->width, codecContext->height, codecContext->pix_fmt,
                            codecContext->width, codecContext->height, AV_PIX_FMT_BGR24,
                            SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    if (!scaler) {
        qCWarning(lcScreenReel) << "unable to convert the picture of device [" << device.name << "]";
        return false;
    }
    av_dump_format(formatContext, streamIndex, deviceName.constData(), 0);
    return true;
}

QImage convertFrame(const AVFrame& frame, SwsContext*& scaler, QImage& image, const QRect& region)
{
    const QSize frameSize(frame.width, frame.height);
    if (image.size() != frameSize) {
        // The first frame, or the screen changed its size: the converter and
        // the working image follow the frame, so nothing is written beyond
        // the image.
        scaler = sws_getCachedContext(scaler, frameSize.width(), frameSize.height(),
                                      AVPixelFormat(frame.format), frameSize.width(),
                                      frameSize.height(), AV_PIX_FMT_BGR24, SWS_FAST_BILINEAR,
                                      nullptr, nullptr, nullptr);
        image = QImage(frameSize, QImage::Format_BGR888);
        if (image.isNull() || !scaler) {
            image = QImage();
            return QImage();
        }
    }
    // bits() detaches the image from every holder of the previous frame.
    uint8_t* planes[4] = {image.bits(), nullptr, nullptr, nullptr};
    const int strides[4] = {int(image.bytesPerLine()), 0, 0, 0};
    sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, planes, strides);
    // The region counts from the image's top-left corner; an image of the
    // region's size is handed on whole, shared, whatever the position says.
    return region.size() == image.size() ? image : image.copy(region);
}

VideoWorker::VideoWorker(const VideoDevice& device, const QRect& region, Pipeline* pipeline)
    : QThread(pipeline)
    , Source(pipeline)
    , input(std::make_unique<VideoInput>(device, region))
{
    input->valid = input->selectInput();
    setObjectName(QStringLiteral("VideoWorker"));
}

VideoWorker::~VideoWorker()
{
    requestInterruption();
    wait(QDeadlineTimer(QDeadlineTimer::Forever));
}

bool VideoWorker::start()
{
    if (!input->valid)
        return false;
    QThread::start(QThread::InheritPriority);
    return true;
}

void VideoWorker::stop()
{
    stopThread(*this);
}

QSize VideoWorker::videoSize()
{
    return input->valid ? input->region.size() : QSize(0, 0);
}

void VideoWorker::run()
{
    setPriority(QThread::TimeCriticalPriority);
    if (!input->valid) {
        abort();
        return;
    }
    VideoInput& in = *input;
    try {
        // Holds the whole grabbed screen. bits() detaches it from every image
        // handed on before, so a handed-over buffer is never written again.
        QImage image;
        while (!isInterruptionRequested()) {
            int result = av_read_frame(in.formatContext, in.packet);
            if (result == AVERROR(EAGAIN))
                continue;
            if (result < 0) {
                qCWarning(lcScreenReel) << "Error reading frame" << result;
                break;
            }
            if (in.packet->stream_index != in.streamIndex) {
                av_packet_unref(in.packet);
                continue;
            }
            result = avcodec_send_packet(in.codecContext, in.packet);
            if (result < 0) {
                qCWarning(lcScreenReel) << "Error sending a packet for decoding: " << result;
                av_packet_unref(in.packet);
                continue;
            }
            for (;;) {
                result = avcodec_receive_frame(in.codecContext, in.frame);
                if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                    break;
                if (result < 0) {
                    qCWarning(lcScreenReel) << "Error during decoding";
                    break;
                }
                const QImage out = convertFrame(*in.frame, in.scaler, image, in.region);
                if (out.isNull()) {
                    qCWarning(lcScreenReel) << "Unable to create frame";
                    break;
                }
                pushImage(out, captureTime(in.formatContext, in.streamIndex, in.frame,
                                           platform::screenTimesOnSystemClock()));
            }
            av_packet_unref(in.packet);
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
