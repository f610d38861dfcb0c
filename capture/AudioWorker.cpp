#include "AudioWorker.h"

#include "OpenInput.h"
#include "Platform.h"
#include "pipeline/Logging.h"
#include "pipeline/Pipeline.h"

#include <QElapsedTimer>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/time.h>
}

namespace orvane {

using plugin::interface::AudioDevice;

namespace {

// Reads of a delivering device return every fragment (80 ms); a read that
// has not returned this long after a stop request waits for a silent device.
constexpr int stopGraceMs = 500;
// How long ending the stream on the sound server may take.
constexpr int endStreamTimeoutMs = 5000;
// How often the read loop asks whether its device is still there, and how
// long the answer may take.
constexpr int deviceCheckMs = 1000;
constexpr int deviceCheckTimeoutMs = 250;
constexpr int64_t pictureLatencyUs = 100000;
// Opening reads the device's first sound, which a delivering device has
// within a fragment or two.
constexpr auto openTimeout = std::chrono::seconds(3);
constexpr auto openRetry = std::chrono::milliseconds(500);

// Watches an input being opened. The open waits for the device's first
// sound like any read does, so a device that delivers none (a suspended
// one) would hold the caller, the host's GUI thread, for as long as that
// lasts. After `openTimeout` the watch ends the input's stream on the sound
// server, which makes the open fail.
class OpenWatch
{
public:
    explicit OpenWatch(const QByteArray& streamName)
    {
        if (streamName.isEmpty())
            return;
        watcher = std::thread([this, streamName] {
            std::unique_lock<std::mutex> lock(mutex);
            if (changed.wait_for(lock, openTimeout, [this] { return opened; }))
                return;
            // The server may not have made the stream yet: try again.
            while (!opened && !ended) {
                lock.unlock();
                const bool done = platform::endAudioStream(streamName, endStreamTimeoutMs);
                lock.lock();
                ended = done;
                changed.wait_for(lock, openRetry, [this] { return opened; });
            }
        });
    }
    ~OpenWatch() { finish(); }

    OpenWatch(const OpenWatch&) = delete;
    OpenWatch& operator=(const OpenWatch&) = delete;

    // Ends the watch; true when it had to end the stream.
    bool finish()
    {
        if (watcher.joinable()) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                opened = true;
            }
            changed.notify_one();
            watcher.join();
        }
        return ended;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool opened = false;  // mutex
    bool ended = false;   // mutex; read alone once the watcher has joined
    std::thread watcher;
};

} // namespace

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
    QByteArray streamName;  // the input's stream on the sound server, if any
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
    // An empty name would record whatever the system's default input is.
    if (device.name.isEmpty()) {
        qCWarning(lcScreenReel) << "unable to open device [" << device.name << "]";
        return false;
    }
    platform::SoundInput source = platform::soundInput(device.name);
    streamName = source.streamName;
    inputFormat = av_find_input_format(source.format);
    // Without the input format FFmpeg would guess one from the device text;
    // that can only pick something else than the device asked for.
    if (!inputFormat) {
        av_dict_free(&source.options);
        qCWarning(lcScreenReel) << "unable to open device [" << device.name << "]";
        return false;
    }
    OpenWatch watch(streamName);
    const bool opened = openInput(source.url.constData(), device.name, &streamIndex, &source.options,
                                  inputFormat, &formatContext, &codec, &codecContext, &packet,
                                  &frame, AVMEDIA_TYPE_AUDIO);
    av_dict_free(&source.options);
    // An open whose stream was ended may still succeed on what it had read.
    if (watch.finish()) {
        qCWarning(lcScreenReel) << "audio device [" << device.name << "] delivers no sound";
        return false;
    }
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
    stop();
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
    requestInterruption();
    if (QThread::currentThread() == this)
        return;
    // The read looks at the request only when the device delivers; one that
    // has gone silent gets its stream ended, which makes the read fail.
    if (!wait(QDeadlineTimer(stopGraceMs)))
        platform::endAudioStream(input->streamName, endStreamTimeoutMs);
    wait(QDeadlineTimer(QDeadlineTimer::Forever));
}

AudioFormat AudioWorker::audioFormat()
{
    if (!input->valid)
        return {};
    const AVCodecContext* context = input->codecContext;
    const AVChannelLayout& layout = context->ch_layout;
    uint64_t mask = layout.order == AV_CHANNEL_ORDER_NATIVE ? layout.u.mask : 0;
    // Inputs that give a channel count alone (the sound server's does) leave
    // the order open: that count's usual layout is what they deliver.
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        AVChannelLayout usual{};
        av_channel_layout_default(&usual, layout.nb_channels);
        if (usual.order == AV_CHANNEL_ORDER_NATIVE)
            mask = usual.u.mask;
        av_channel_layout_uninit(&usual);
    }
    return {context->sample_fmt, context->sample_rate, layout.nb_channels, mask};
}

void AudioWorker::run()
{
    setPriority(QThread::TimeCriticalPriority);
    if (!input->valid) {
        abort();
        return;
    }
    AudioInput& in = *input;
    // The device has captured since it was opened, while the rest of the
    // recording was set up; that sound would lag the picture by the set-up
    // time. It is cut off by its capture times (where they are on the system
    // clock), keeping the picture's own latency of about 100 ms: its first
    // frame is stamped one frame in, the Muxer samples the newest image once
    // a tick, and grabbing and converting take the rest.
    bool trimming = platform::audioTimestampsAreWallClock();
    const int64_t keepFrom = av_gettime() - pictureLatencyUs;
    const AVRational timeBase = in.formatContext->streams[in.streamIndex]->time_base;
    const auto samplesBeforeStart = [&](const AVFrame* frame) {
        if (!trimming)
            return 0;
        trimming = false;
        if (frame->pts == AV_NOPTS_VALUE || frame->sample_rate <= 0)
            return 0;
        const int64_t captured = av_rescale_q(frame->pts, timeBase, AV_TIME_BASE_Q);
        if (captured >= keepFrom)
            return 0;
        const int64_t before = av_rescale(keepFrom - captured, frame->sample_rate, AV_TIME_BASE);
        // A frame that lies wholly before the start keeps the trimming on.
        trimming = before >= frame->nb_samples;
        return int(qMin<int64_t>(before, frame->nb_samples));
    };
    QElapsedTimer sinceCheck;
    sinceCheck.start();
    int64_t device = platform::audioStreamDevice(in.streamName, deviceCheckTimeoutMs);
    try {
        while (!isInterruptionRequested()) {
            if (sinceCheck.elapsed() >= deviceCheckMs) {
                sinceCheck.restart();
                const int64_t now = platform::audioStreamDevice(in.streamName, deviceCheckTimeoutMs);
                if (device < 0)
                    device = now;
                else if (now >= 0 && now != device) {
                    qCWarning(lcScreenReel) << "audio device [" << in.device.name << "] is gone";
                    abort();
                    return;
                }
            }
            int result = av_read_frame(in.formatContext, in.packet);
            if (result == AVERROR(EAGAIN))
                continue;
            // A read ended by a stop is no failure of the device.
            if (result < 0 && isInterruptionRequested())
                return;
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
                const int skip = samplesBeforeStart(in.frame);
                const int count = in.frame->nb_samples - skip;
                if (count <= 0)
                    continue;
                const int channels = in.frame->ch_layout.nb_channels;
                const auto format = AVSampleFormat(in.frame->format);
                int lineSize = 0;
                if (av_samples_get_buffer_size(&lineSize, channels, count, format, 1) < 0) {
                    qCWarning(lcScreenReel) << "unable to get audio buffer size";
                    break;
                }
                // A planar frame carries one plane per channel; they travel
                // one after the other so that no channel is lost.
                const bool planar = av_sample_fmt_is_planar(format);
                const int planes = planar ? channels : 1;
                const int offset = skip * av_get_bytes_per_sample(format) * (planar ? 1 : channels);
                QByteArray samples(lineSize * planes, Qt::Uninitialized);
                for (int i = 0; i < planes; ++i)
                    memcpy(samples.data() + i * lineSize, in.frame->extended_data[i] + offset, size_t(lineSize));
                pushAudio(samples, qint64(count));
            }
            av_packet_unref(in.packet);
        }
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
