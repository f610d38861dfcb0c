#include "MediaProbe.h"

#include <cstring>
#include <functional>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace orvane::test {

namespace {

QString errorText(int code)
{
    char text[64] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

// One opened input, from a file or from memory.
class Input
{
public:
    Input(const QString& path, const QByteArray& data)
        : data(data)
    {
        if (path.isEmpty()) {
            const int size = 4096;
            auto* buffer = static_cast<unsigned char*>(av_malloc(size));
            io = avio_alloc_context(buffer, size, 0, this, &Input::read, nullptr, &Input::seek);
            format = avformat_alloc_context();
            format->pb = io;
        }
        const QByteArray name = path.toLocal8Bit();
        const int result = avformat_open_input(&format, path.isEmpty() ? nullptr : name.constData(),
                                               nullptr, nullptr);
        if (result < 0) {
            error = QStringLiteral("cannot open: ") + errorText(result);
            return;
        }
        const int info = avformat_find_stream_info(format, nullptr);
        if (info < 0)
            error = QStringLiteral("no stream info: ") + errorText(info);
    }

    ~Input()
    {
        avformat_close_input(&format);
        if (io)
            av_freep(&io->buffer);
        avio_context_free(&io);
    }

    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    AVFormatContext* format = nullptr;
    QString error;

private:
    static int read(void* opaque, uint8_t* buffer, int size)
    {
        auto* self = static_cast<Input*>(opaque);
        const qint64 left = self->data.size() - self->position;
        if (left <= 0)
            return AVERROR_EOF;
        const int count = int(qMin<qint64>(left, size));
        std::memcpy(buffer, self->data.constData() + self->position, size_t(count));
        self->position += count;
        return count;
    }

    static int64_t seek(void* opaque, int64_t offset, int whence)
    {
        auto* self = static_cast<Input*>(opaque);
        switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            return self->data.size();
        case SEEK_SET:
            break;
        case SEEK_CUR:
            offset += self->position;
            break;
        case SEEK_END:
            offset += self->data.size();
            break;
        default:
            return -1;
        }
        if (offset < 0 || offset > self->data.size())
            return -1;
        self->position = offset;
        return offset;
    }

    QByteArray data;
    qint64 position = 0;
    AVIOContext* io = nullptr;
};

using CodecPtr = std::unique_ptr<AVCodecContext, std::function<void(AVCodecContext*)>>;

CodecPtr openDecoder(const AVStream* stream)
{
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec)
        return {};
    CodecPtr context(avcodec_alloc_context3(codec), [](AVCodecContext* c) { avcodec_free_context(&c); });
    if (avcodec_parameters_to_context(context.get(), stream->codecpar) < 0
        || avcodec_open2(context.get(), codec, nullptr) < 0)
        return {};
    return context;
}

// Feeds every packet of one stream to its decoder and hands each frame on.
void decodeStream(Input& input, int index, const std::function<bool(AVFrame*)>& take)
{
    if (!input.error.isEmpty() || index < 0)
        return;
    CodecPtr decoder = openDecoder(input.format->streams[index]);
    if (!decoder)
        return;
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    bool more = true;
    auto drain = [&] {
        while (more && avcodec_receive_frame(decoder.get(), frame) == 0) {
            more = take(frame);
            av_frame_unref(frame);
        }
    };
    while (more && av_read_frame(input.format, packet) >= 0) {
        if (packet->stream_index == index)
            avcodec_send_packet(decoder.get(), packet);
        av_packet_unref(packet);
        drain();
    }
    avcodec_send_packet(decoder.get(), nullptr);
    drain();
    av_frame_free(&frame);
    av_packet_free(&packet);
}

} // namespace

MediaProbe MediaProbe::fromFile(const QString& path)
{
    MediaProbe probe;
    probe.path = path;
    if (path.isEmpty())
        probe.error = QStringLiteral("no file name");
    else
        probe.load();
    return probe;
}

MediaProbe MediaProbe::fromData(const QByteArray& data)
{
    MediaProbe probe;
    probe.data = data;
    probe.load();
    return probe;
}

void MediaProbe::load()
{
    Input input(path, data);
    error = input.error;
    if (!error.isEmpty())
        return;
    const AVFormatContext* format = input.format;
    if (format->duration != AV_NOPTS_VALUE)
        duration = double(format->duration) / AV_TIME_BASE;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        const AVCodecParameters* parameters = stream->codecpar;
        ProbedStream probed;
        probed.type = QString::fromLatin1(av_get_media_type_string(parameters->codec_type));
        probed.codec = QString::fromLatin1(avcodec_get_name(parameters->codec_id));
        if (parameters->codec_type == AVMEDIA_TYPE_VIDEO) {
            const char* name = av_get_pix_fmt_name(AVPixelFormat(parameters->format));
            probed.pixelFormat = name ? QString::fromLatin1(name) : QString();
            probed.width = parameters->width;
            probed.height = parameters->height;
        } else if (parameters->codec_type == AVMEDIA_TYPE_AUDIO) {
            probed.sampleRate = parameters->sample_rate;
            probed.channels = parameters->ch_layout.nb_channels;
        }
        probed.timeBaseNum = stream->time_base.num;
        probed.timeBaseDen = stream->time_base.den;
        streams.append(probed);
    }
    AVPacket* packet = av_packet_alloc();
    int result;
    while ((result = av_read_frame(input.format, packet)) >= 0) {
        streams[packet->stream_index].packets.append({packet->pts, packet->dts, packet->duration});
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    if (result != AVERROR_EOF)
        error = QStringLiteral("read failed: ") + errorText(result);
}

int MediaProbe::streamIndex(const QString& type) const
{
    for (int i = 0; i < streams.size(); ++i) {
        if (streams[i].type == type)
            return i;
    }
    return -1;
}

QVector<QImage> MediaProbe::decodeVideo(int maxFrames) const
{
    QVector<QImage> images;
    Input input(path, data);
    const int index = streamIndex(QStringLiteral("video"));
    SwsContext* scaler = nullptr;
    decodeStream(input, index, [&](AVFrame* frame) {
        scaler = sws_getCachedContext(scaler, frame->width, frame->height, AVPixelFormat(frame->format),
                                      frame->width, frame->height, AV_PIX_FMT_RGB24, SWS_BILINEAR,
                                      nullptr, nullptr, nullptr);
        QImage image(frame->width, frame->height, QImage::Format_RGB888);
        uint8_t* planes[4] = {image.bits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(image.bytesPerLine()), 0, 0, 0};
        sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
        images.append(image);
        return maxFrames < 0 || images.size() < maxFrames;
    });
    sws_freeContext(scaler);
    return images;
}

QVector<float> MediaProbe::decodeAudio() const
{
    QVector<float> samples;
    Input input(path, data);
    const int index = streamIndex(QStringLiteral("audio"));
    SwrContext* resampler = nullptr;
    decodeStream(input, index, [&](AVFrame* frame) {
        if (!resampler) {
            swr_alloc_set_opts2(&resampler, &frame->ch_layout, AV_SAMPLE_FMT_FLT, frame->sample_rate,
                                &frame->ch_layout, AVSampleFormat(frame->format), frame->sample_rate,
                                0, nullptr);
            if (!resampler || swr_init(resampler) < 0)
                return false;
        }
        const int channels = frame->ch_layout.nb_channels;
        const int offset = samples.size();
        samples.resize(offset + frame->nb_samples * channels);
        uint8_t* out[1] = {reinterpret_cast<uint8_t*>(samples.data() + offset)};
        const int converted = swr_convert(resampler, out, frame->nb_samples,
                                          const_cast<const uint8_t**>(frame->extended_data),
                                          frame->nb_samples);
        samples.resize(offset + qMax(converted, 0) * channels);
        return true;
    });
    swr_free(&resampler);
    return samples;
}

} // namespace orvane::test
