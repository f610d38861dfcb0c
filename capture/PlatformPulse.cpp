// PulseAudio (or PipeWire's pulse server): the sound input, and what the
// recorder asks of the server beside it.

#include "Platform.h"

#include <QAudioDeviceInfo>
#include <QCoreApplication>
#include <QDeadlineTimer>

#include <atomic>

extern "C" {
#include <libavutil/dict.h>
}

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/mainloop.h>
#include <pulse/operation.h>
#include <pulse/proplist.h>

namespace orvane::platform {

namespace {

SoundInput pulseInput(const QString& deviceName)
{
    // The sound server's default fragments are shorter than the consumer's
    // 40 ms tick, which takes one chunk a tick: ask for 80 ms of its default
    // 48 kHz stereo 16-bit stream so the queue cannot grow.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "fragment_size", "15360", 0);
    // A name of its own per stream, unique on the server, for endAudioStream.
    static std::atomic<int> streams{0};
    const QByteArray streamName = "ScreenReel " + QByteArray::number(QCoreApplication::applicationPid())
                                  + '.' + QByteArray::number(++streams);
    av_dict_set(&options, "stream_name", streamName.constData(), 0);
    return {"pulse", deviceName.toUtf8(), options, streamName};
}

// A private connection to the sound server, driven by hand until a deadline.
class PulseConnection
{
public:
    explicit PulseConnection(int timeoutMs)
        : deadline(timeoutMs)
        , loop(pa_mainloop_new())
    {
        if (!loop)
            return;
        context = pa_context_new(pa_mainloop_get_api(loop), "ScreenReel");
        if (!context || pa_context_connect(context, nullptr, PA_CONTEXT_NOFLAGS, nullptr) < 0)
            return;
        while (pa_context_get_state(context) != PA_CONTEXT_READY) {
            if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context)) || !iterate())
                return;
        }
        ready = true;
    }
    ~PulseConnection()
    {
        if (context) {
            pa_context_disconnect(context);
            pa_context_unref(context);
        }
        if (loop)
            pa_mainloop_free(loop);
    }

    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;

    // Runs the loop until the operation is done; false on time-out.
    bool complete(pa_operation* operation)
    {
        if (!operation)
            return false;
        bool done = true;
        while (pa_operation_get_state(operation) == PA_OPERATION_RUNNING) {
            if (!iterate()) {
                pa_operation_cancel(operation);
                done = false;
                break;
            }
        }
        pa_operation_unref(operation);
        return done;
    }

    QDeadlineTimer deadline;
    pa_mainloop* const loop;
    pa_context* context = nullptr;
    bool ready = false;

private:
    bool iterate()
    {
        const qint64 left = deadline.remainingTime();
        if (left == 0)
            return false;
        return pa_mainloop_prepare(loop, int(left * 1000)) >= 0 && pa_mainloop_poll(loop) >= 0
            && pa_mainloop_dispatch(loop) >= 0;
    }
};

} // namespace

SoundInput soundInput(const QString& deviceName)
{
    // Qt lists sound-server sources and raw ALSA devices side by side; a name
    // that only the ALSA realm knows is opened with the ALSA input.
    bool alsaOnly = false;
    for (const QAudioDeviceInfo& info : QAudioDeviceInfo::availableDevices(QAudio::AudioInput)) {
        if (info.deviceName() != deviceName)
            continue;
        if (info.realm() != QLatin1String("alsa"))
            return pulseInput(deviceName);
        alsaOnly = true;
    }
    if (alsaOnly)
        return {"alsa", deviceName.toUtf8(), nullptr, {}};
    return pulseInput(deviceName);
}

namespace {

// A recording stream on the server: its own index and its device's.
struct ServerStream
{
    uint32_t index;
    uint32_t source;
};

// The streams of that name; false when the server did not answer in time.
bool findStreams(PulseConnection& server, const QByteArray& streamName, std::vector<ServerStream>* found)
{
    struct Search
    {
        QByteArray name;
        std::vector<ServerStream>* found;
    } search{streamName, found};
    const auto collect = [](pa_context*, const pa_source_output_info* info, int last, void* data) {
        auto* search = static_cast<Search*>(data);
        if (last || !info)
            return;
        const char* name = pa_proplist_gets(info->proplist, PA_PROP_MEDIA_NAME);
        if (name && search->name == name)
            search->found->push_back({info->index, info->source});
    };
    return server.complete(pa_context_get_source_output_info_list(server.context, collect, &search));
}

} // namespace

bool endAudioStream(const QByteArray& streamName, int timeoutMs)
{
    if (streamName.isEmpty())
        return false;
    PulseConnection server(timeoutMs);
    std::vector<ServerStream> streams;
    if (!server.ready || !findStreams(server, streamName, &streams))
        return false;
    bool ended = false;
    for (const ServerStream& stream : streams) {
        int success = 0;
        const auto result = [](pa_context*, int ok, void* data) { *static_cast<int*>(data) = ok; };
        if (server.complete(pa_context_kill_source_output(server.context, stream.index, result, &success))
            && success)
            ended = true;
    }
    return ended;
}

bool audioTimestampsAreWallClock()
{
    // Both the sound server's input and the ALSA input do.
    return true;
}

int64_t audioStreamDevice(const QByteArray& streamName, int timeoutMs)
{
    if (streamName.isEmpty())
        return -1;
    PulseConnection server(timeoutMs);
    std::vector<ServerStream> streams;
    if (!server.ready || !findStreams(server, streamName, &streams) || streams.size() != 1)
        return -1;
    return streams.front().source;
}


} // namespace orvane::platform
