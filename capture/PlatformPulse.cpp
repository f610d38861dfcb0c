// PulseAudio (or PipeWire's pulse server): the sound input, and the watch
// on its stream beside it.

#include "Platform.h"

#include <QAudioDeviceInfo>
#include <QCoreApplication>

#include <atomic>
#include <mutex>

extern "C" {
#include <libavutil/dict.h>
}

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/proplist.h>
#include <pulse/rtclock.h>
#include <pulse/subscribe.h>
#include <pulse/thread-mainloop.h>
#include <pulse/timeval.h>

namespace orvane::platform {

namespace {

SoundInput pulseInput(const QString& deviceName)
{
    // Reads of 20 ms of its default 48 kHz stereo 16-bit stream: a stop
    // waits for the read in progress (the picture goes on meanwhile), and
    // the worker gathers the reads into pieces of a tick.
    AVDictionary* options = nullptr;
    av_dict_set(&options, "fragment_size", "3840", 0);
    // A name of its own per stream, unique on the server, for the watch.
    static std::atomic<int> streams{0};
    const QByteArray streamName = "ScreenReel " + QByteArray::number(QCoreApplication::applicationPid())
                                  + '.' + QByteArray::number(++streams);
    av_dict_set(&options, "stream_name", streamName.constData(), 0);
    return {"pulse", deviceName.toUtf8(), options, streamName};
}

} // namespace

QList<QAudioDeviceInfo> recordableAudioInputs()
{
    // Qt's sound-server realm lists one unnamed device when no server
    // answers; a server that runs names its inputs.
    QList<QAudioDeviceInfo> server;
    QList<QAudioDeviceInfo> alsa;
    bool serverRuns = false;
    for (const QAudioDeviceInfo& info : QAudioDeviceInfo::availableDevices(QAudio::AudioInput)) {
        if (info.realm() == QLatin1String("alsa")) {
            alsa.append(info);
        } else {
            server.append(info);
            serverRuns = serverRuns || !info.deviceName().isEmpty();
        }
    }
    return serverRuns ? server : alsa;
}

SoundInput soundInput(const QString& deviceName)
{
    // Where no sound server runs the inputs are ALSA's, opened with the ALSA
    // input; any other name goes to the server.
    for (const QAudioDeviceInfo& info : recordableAudioInputs()) {
        if (info.deviceName() == deviceName && info.realm() == QLatin1String("alsa"))
            return {"alsa", deviceName.toUtf8(), nullptr, {}};
    }
    return pulseInput(deviceName);
}

// Both the sound server's input and the ALSA input stamp each packet with
// the system clock less the latency of what it holds.
bool soundTimesOnSystemClock()
{
    return true;
}

// Runs on the connection's own thread (libpulse's threaded loop). The server
// is reached there, or elsewhere under the loop's lock. The fields below
// `mutex` also have that lock of their own, which the thread checker can see
// (libpulse's locking happens inside an uninstrumented library); it is held
// for a few assignments only, and always after the loop's lock.
struct AudioStreamWatch::Private
{
    explicit Private(const QByteArray& streamName)
        : streamName(streamName)
    {
    }

    // Loop thread.
    static void stateChanged(pa_context* context, void* data);
    static void event(pa_context* context, pa_subscription_event_type_t type, uint32_t index, void* data);
    static void streamFound(pa_context* context, const pa_source_output_info* info, int last, void* data);
    static void timerFired(pa_mainloop_api* api, pa_time_event* event, const struct timeval*, void* data);
    static void sourceFound(pa_context* context, const pa_source_info* info, int last, void* data);
    // Loop thread or under the loop's lock; not under `mutex`.
    void endStream();
    void lock() { pa_threaded_mainloop_lock(loop); }
    void unlock() { pa_threaded_mainloop_unlock(loop); }

    const QByteArray streamName;
    std::atomic<bool> gone{false};
    pa_threaded_mainloop* loop = nullptr;
    pa_context* context = nullptr;
    std::mutex mutex;
    pa_time_event* timer = nullptr;
    uint32_t stream = PA_INVALID_INDEX;  // our stream, once the server has made it
    uint32_t source = PA_INVALID_INDEX;  // the device it records from
    bool ending = false;                 // end the stream as soon as it is known
    bool timerDone = false;              // unblockAfter came to its end
    bool sourceKnown = false;            // hasSource's answer
};

void AudioStreamWatch::Private::stateChanged(pa_context* context, void* data)
{
    auto* d = static_cast<Private*>(data);
    pa_threaded_mainloop_signal(d->loop, 0);  // hasSource may wait for the connection
    if (pa_context_get_state(context) != PA_CONTEXT_READY)
        return;
    pa_context_set_subscribe_callback(context, &Private::event, d);
    pa_operation* operation = pa_context_subscribe(
        context, pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SOURCE | PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT),
        nullptr, nullptr);
    if (operation)
        pa_operation_unref(operation);
    // The stream may be there already.
    operation = pa_context_get_source_output_info_list(context, &Private::streamFound, d);
    if (operation)
        pa_operation_unref(operation);
}

void AudioStreamWatch::Private::event(pa_context* context, pa_subscription_event_type_t type, uint32_t index,
                                      void* data)
{
    auto* d = static_cast<Private*>(data);
    const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
    const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
    uint32_t stream, source;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        stream = d->stream;
        source = d->source;
    }
    if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT && kind != PA_SUBSCRIPTION_EVENT_REMOVE
        && (stream == PA_INVALID_INDEX || stream == index)) {
        // A new stream may be ours; ours may have been moved to another device.
        pa_operation* operation = pa_context_get_source_output_info(context, index, &Private::streamFound, d);
        if (operation)
            pa_operation_unref(operation);
    } else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && kind == PA_SUBSCRIPTION_EVENT_REMOVE
               && index == source && source != PA_INVALID_INDEX) {
        // The server announces the move of the streams before the removal of
        // their device, and answers what the stream records from only after
        // both: a removal of the device still on record is one that took our
        // stream away. A move made by the user has been answered long before.
        d->gone = true;
        d->endStream();
    }
}

void AudioStreamWatch::Private::streamFound(pa_context*, const pa_source_output_info* info, int last, void* data)
{
    auto* d = static_cast<Private*>(data);
    if (last || !info)
        return;
    const char* name = pa_proplist_gets(info->proplist, PA_PROP_MEDIA_NAME);
    if (!name || d->streamName != name)
        return;
    bool ending;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->stream = info->index;
        d->source = info->source;
        ending = d->ending;
    }
    if (ending)
        d->endStream();
}

void AudioStreamWatch::Private::timerFired(pa_mainloop_api* api, pa_time_event* event, const struct timeval*,
                                           void* data)
{
    auto* d = static_cast<Private*>(data);
    api->time_free(event);
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->timer = nullptr;
        d->timerDone = true;
    }
    d->endStream();
}

void AudioStreamWatch::Private::sourceFound(pa_context*, const pa_source_info* info, int last, void* data)
{
    auto* d = static_cast<Private*>(data);
    if (!last && info) {
        std::lock_guard<std::mutex> lock(d->mutex);
        d->sourceKnown = true;
    }
    pa_threaded_mainloop_signal(d->loop, 0);
}

void AudioStreamWatch::Private::endStream()
{
    uint32_t known;
    {
        std::lock_guard<std::mutex> lock(mutex);
        ending = true;
        known = stream;
    }
    if (known == PA_INVALID_INDEX || !context || pa_context_get_state(context) != PA_CONTEXT_READY)
        return;
    pa_operation* operation = pa_context_kill_source_output(context, known, nullptr, nullptr);
    if (operation)
        pa_operation_unref(operation);
}

AudioStreamWatch::AudioStreamWatch(const QByteArray& streamName)
    : d(std::make_unique<Private>(streamName))
{
    if (streamName.isEmpty())
        return;
    d->loop = pa_threaded_mainloop_new();
    if (!d->loop)
        return;
    d->context = pa_context_new(pa_threaded_mainloop_get_api(d->loop), "ScreenReel");
    if (!d->context)
        return;
    pa_context_set_state_callback(d->context, &Private::stateChanged, d.get());
    // The connection comes up on the loop's thread; nothing waits for it.
    if (pa_context_connect(d->context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0
        || pa_threaded_mainloop_start(d->loop) < 0) {
        pa_context_unref(d->context);
        d->context = nullptr;
    }
}

AudioStreamWatch::~AudioStreamWatch()
{
    if (!d->loop)
        return;
    pa_threaded_mainloop_stop(d->loop);
    if (d->context) {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->timer)
            pa_threaded_mainloop_get_api(d->loop)->time_free(d->timer);
        pa_context_disconnect(d->context);
        pa_context_unref(d->context);
    }
    pa_threaded_mainloop_free(d->loop);
}

bool AudioStreamWatch::hasSource(const QByteArray& name)
{
    if (!d->context)
        return true;
    d->lock();
    pa_context_state_t state;
    while ((state = pa_context_get_state(d->context)) != PA_CONTEXT_READY && PA_CONTEXT_IS_GOOD(state))
        pa_threaded_mainloop_wait(d->loop);
    bool known = true;
    if (state == PA_CONTEXT_READY) {
        {
            std::lock_guard<std::mutex> lock(d->mutex);
            d->sourceKnown = false;
        }
        pa_operation* operation =
            pa_context_get_source_info_by_name(d->context, name.constData(), &Private::sourceFound, d.get());
        while (operation && pa_operation_get_state(operation) == PA_OPERATION_RUNNING)
            pa_threaded_mainloop_wait(d->loop);
        if (operation)
            pa_operation_unref(operation);
        std::lock_guard<std::mutex> lock(d->mutex);
        known = d->sourceKnown;
    }
    d->unlock();
    return known;
}

void AudioStreamWatch::unblock()
{
    if (!d->context)
        return;
    d->lock();
    d->endStream();
    d->unlock();
}

void AudioStreamWatch::unblockAfter(std::chrono::milliseconds delay)
{
    if (!d->context)
        return;
    d->lock();
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (!d->timer)
            d->timer = pa_context_rttime_new(d->context,
                                             pa_rtclock_now() + pa_usec_t(delay.count()) * PA_USEC_PER_MSEC,
                                             &Private::timerFired, d.get());
    }
    d->unlock();
}

bool AudioStreamWatch::finishUnblockAfter()
{
    if (!d->context)
        return false;
    d->lock();
    bool fired;
    {
        std::lock_guard<std::mutex> lock(d->mutex);
        if (d->timer) {
            pa_threaded_mainloop_get_api(d->loop)->time_free(d->timer);
            d->timer = nullptr;
        }
        fired = d->timerDone;
        // A stream the server has not made yet is left alone now.
        if (fired && d->stream == PA_INVALID_INDEX)
            d->ending = false;
    }
    d->unlock();
    return fired;
}

bool AudioStreamWatch::gone() const
{
    return d->gone;
}

} // namespace orvane::platform
