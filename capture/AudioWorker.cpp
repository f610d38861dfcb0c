#include "AudioWorker.h"

#include "OpenInput.h"
#include "Platform.h"
#include "SoundGatherer.h"
#include "pipeline/Logging.h"

#include <cstring>
#include <exception>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

// Threads and locks: see Pipeline.h. The worker's own thread reads, decodes
// and hands on; the GUI thread opens the input and stops the thread; both
// reach the sound server's side only through AudioStreamWatch. No lock of
// the worker's own.

namespace orvane {

using plugin::interface::AudioDevice;

namespace {

// Opening reads the device's first sound, which a delivering device has
// within a fragment or two: one that has none by then is silent (suspended)
// and would hold the caller, the host's GUI thread, for as long as that
// lasts.
constexpr std::chrono::seconds openTimeout(3);
// Reads of a delivering device return every fragment (20 ms); a read that
// has not returned this long after a stop request waits for a silent device.
constexpr std::chrono::milliseconds stopGrace(500);

constexpr DecodeLog decodeLog{"Error sending a audio packet for decoding", false,
                              "Error during audio decoding ", true};

} // namespace

// Everything the audio thread works with, opened in the constructor.
struct AudioInput : CaptureInput
{
    explicit AudioInput(const AudioDevice& device)
        : CaptureInput(AVMEDIA_TYPE_AUDIO)
        , device(device)
    {
    }

    bool setUp();

    const AudioDevice device;
    std::unique_ptr<platform::AudioStreamWatch> watch;  // the stream on the sound server, if any
};

bool AudioInput::setUp()
{
    platform::SoundInput source = platform::soundInput(device.name);
    watch = std::make_unique<platform::AudioStreamWatch>(source.streamName);
    inputFormat = av_find_input_format(source.format);
    // An empty name would record whatever the system's default input is, and
    // so would an unknown one on some servers. Without the input format
    // FFmpeg would guess one from the device text: something else again.
    if (device.name.isEmpty() || !inputFormat || !watch->hasSource(source.url)) {
        av_dict_free(&source.options);
        qCWarning(lcScreenReel) << "unable to open device [" << device.name << "]";
        return false;
    }
    watch->unblockAfter(openTimeout);
    const bool opened = openInput(*this, source.url.constData(), device.name, &source.options);
    av_dict_free(&source.options);
    // An open whose stream was ended may still succeed on what it had read.
    if (watch->finishUnblockAfter()) {
        qCWarning(lcScreenReel) << "audio device [" << device.name << "] delivers no sound";
        return false;
    }
    if (!opened)
        return false;
    av_dump_format(formatContext, streamIndex, device.name.toLocal8Bit().constData(), 0);
    return true;
}

AudioWorker::AudioWorker(const AudioDevice& device, Pipeline* pipeline)
    : PartThread(QStringLiteral("AudioWorker"), pipeline)
    , Source(pipeline)
    , input(std::make_unique<AudioInput>(device))
{
    input->valid = input->setUp();
}

AudioWorker::~AudioWorker()
{
    stop();
}

bool AudioWorker::start()
{
    return startIf(input->valid);
}

void AudioWorker::stop()
{
    // The read looks at the request only when the device delivers; one that
    // has gone silent gets its stream ended, which makes the read fail.
    stopAndWait(stopGrace, [this] { input->watch->unblock(); });
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
    AudioInput& in = *input;
    const bool timed = platform::soundTimesOnSystemClock();
    try {
        SoundGatherer gathered(in.codecContext->sample_fmt, in.codecContext->ch_layout.nb_channels,
                               in.codecContext->sample_rate,
                               [this](const QByteArray& samples, qint64 count, CaptureTime captured) {
                                   pushAudio(samples, count, captured);
                               });
        // Made once: the loop runs for every packet.
        const std::function<bool(const AVFrame&)> take = [&](const AVFrame& frame) {
            int lineSize = 0;
            if (av_samples_get_buffer_size(&lineSize, frame.ch_layout.nb_channels, frame.nb_samples,
                                           AVSampleFormat(frame.format), 1) < 0) {
                qCWarning(lcScreenReel) << "unable to get audio buffer size";
                return false;
            }
            gathered.add(frame.extended_data, lineSize, frame.nb_samples,
                         captureTime(in.formatContext, in.streamIndex, &frame, timed));
            return true;
        };
        while (!isInterruptionRequested()) {
            int result = av_read_frame(in.formatContext, in.packet);
            if (in.watch->gone()) {
                gathered.flush();
                qCWarning(lcScreenReel) << "audio device [" << in.device.name << "] is gone";
                abort();
                return;
            }
            if (result == AVERROR(EAGAIN))
                continue;
            // A read ended by a stop is no failure of the device.
            if (result < 0 && isInterruptionRequested())
                break;
            if (result < 0) {
                gathered.flush();
                qCWarning(lcScreenReel) << "Error reading frame" << result;
                abort();
                return;
            }
            decodePacket(in.codecContext, in.streamIndex, in.packet, in.frame, decodeLog, take);
        }
        // What was gathered when the stop came is the end of the sound.
        gathered.flush();
    } catch (const std::exception& e) {
        qCWarning(lcScreenReel) << "ScreenReel error: " << e.what();
        abort();
    }
}

} // namespace orvane
