#include "AudioWorker.h"

#include "OpenInput.h"
#include "Platform.h"
#include "pipeline/Logging.h"
#include "pipeline/Pipeline.h"

#include <exception>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace orvane {

using plugin::interface::AudioDevice;

// Everything the audio thread works with, opened in the constructor.
struct AudioInput
{
    explicit AudioInput(const AudioDevice& device)
        : device(device)
    {
    }
    ~AudioInput()
    {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codecContext);
        avformat_close_input(&formatContext);
    }

    bool setUp();

    const AudioDevice device;
    bool valid = false;
    int streamIndex = -1;
    const AVInputFormat* inputFormat = nullptr;
    AVFormatContext* formatContext = nullptr;
    const AVCodec* codec = nullptr;
    AVCodecContext* codecContext = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
};

bool AudioInput::setUp()
{
    platform::AudioInput source = platform::audioInput(device.name);
    inputFormat = av_find_input_format(source.format);
    // Without the input format FFmpeg would guess one from the device text;
    // that can only pick something else than the device asked for.
    if (!inputFormat) {
        av_dict_free(&source.options);
        qCWarning(lcScreenReel) << "unable to open device [" << device.name << "]";
        return false;
    }
    const bool opened = openInput(source.url.constData(), device.name, &streamIndex, &source.options,
                                  inputFormat, &formatContext, &codec, &codecContext, &packet,
                                  &frame, AVMEDIA_TYPE_AUDIO);
    av_dict_free(&source.options);
    if (!opened)
        return false;
    av_dump_format(formatContext, streamIndex, device.name.toLocal8Bit().constData(), 0);
    return true;
}

AudioWorker::AudioWorker(const AudioDevice& device, Pipeline* pipeline)
    : QThread(pipeline)
    , Source(pipeline)
    , input(std::make_unique<AudioInput>(device))
{
    input->valid = input->setUp();
    setObjectName(QStringLiteral("AudioWorker"));
}

AudioWorker::~AudioWorker()
{
    requestInterruption();
    wait(QDeadlineTimer(QDeadlineTimer::Forever));
}

bool AudioWorker::start()
{
    if (!input->valid)
        return false;
    QThread::start(QThread::InheritPriority);
    return true;
}

void AudioWorker::stop()
{
    stopThread(*this);
}

AudioFormat AudioWorker::audioFormat()
{
    if (!input->valid)
        return {};
    const AVCodecContext* context = input->codecContext;
    const AVChannelLayout& layout = context->ch_layout;
    return {context->sample_fmt, context->sample_rate, layout.nb_channels,
            layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0};
}

void AudioWorker::run()
{
    setPriority(QThread::TimeCriticalPriority);
    if (!input->valid) {
        abort();
        return;
    }
    AudioInput& in = *input;
    try {
        while (!isInterruptionRequested()) {
            int result = av_read_frame(in.formatContext, in.packet);
            if (result == AVERROR(EAGAIN))
                continue;
            if (result < 0) {
                qCWarning(lcScreenReel) << "Error reading frame" << result;
                abort();
                return;
            }
            if (in.packet->stream_index != in.streamIndex) {
                av_packet_unref(in.packet);
                continue;
            }
            if (avcodec_send_packet(in.codecContext, in.packet) < 0) {
                qCWarning(lcScreenReel) << "Error sending a audio packet for decoding";
                av_packet_unref(in.packet);
                continue;
            }
            for (;;) {
                result = avcodec_receive_frame(in.codecContext, in.frame);
                if (result == AVERROR(EAGAIN) || result == AVERROR_EOF)
                    break;
                if (result < 0) {
                    qCWarning(lcScreenReel) << "Error during audio decoding " << result;
                    break;
                }
                const int channels = in.frame->ch_layout.nb_channels;
                const auto format = AVSampleFormat(in.frame->format);
                int lineSize = 0;
                if (av_samples_get_buffer_size(&lineSize, channels, in.frame->nb_samples, format, 1) < 0) {
                    qCWarning(lcScreenReel) << "unable to get audio buffer size";
                    break;
                }
                // A planar frame carries one plane per channel; they travel
                // one after the other so that no channel is lost.
                const int planes = av_sample_fmt_is_planar(format) ? channels : 1;
                QByteArray samples(lineSize * planes, Qt::Uninitialized);
                for (int i = 0; i < planes; ++i)
                    memcpy(samples.data() + i * lineSize, in.frame->extended_data[i], size_t(lineSize));
                pushAudio(samples, qint64(in.frame->nb_samples));
            }
            av_packet_unref(in.packet);
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
