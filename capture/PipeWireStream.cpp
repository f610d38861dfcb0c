#include "PipeWireStream.h"

#include "pipeline/Logging.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <spa/utils/result.h>

#include <unistd.h>

#include <mutex>

namespace orvane {

namespace {

void initialisePipeWire()
{
    // Its support libraries stay loaded until the process ends.
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

bool layoutOf(spa_video_format format, PixelLayout* layout)
{
    switch (format) {
    case SPA_VIDEO_FORMAT_BGRx:
    case SPA_VIDEO_FORMAT_BGRA:
        *layout = PixelLayout::bgrx;
        return true;
    case SPA_VIDEO_FORMAT_RGBx:
    case SPA_VIDEO_FORMAT_RGBA:
        *layout = PixelLayout::rgbx;
        return true;
    default: return false;
    }
}

} // namespace

// Every PipeWire handle of the stream, each null until made; the destructor
// frees whatever is there.
struct PipeWireStream::State
{
    ~State();

    static void onCoreError(void* data, uint32_t id, int seq, int result, const char* message);
    static void onGlobalRemove(void* data, uint32_t id);
    static void onStateChanged(void* data, pw_stream_state old, pw_stream_state state, const char* error);
    static void onParamChanged(void* data, uint32_t id, const spa_pod* param);
    static void onProcess(void* data);

    void end(const QString& reason);

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_registry* registry = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener{};
    spa_hook registryListener{};
    spa_hook streamListener{};
    pw_core_events coreEvents{};
    pw_registry_events registryEvents{};
    pw_stream_events streamEvents{};
    int fd = -1;  // until the core owns it

    // The loop thread's alone once it runs.
    uint32_t node = 0;
    FrameHandler frames;
    EndHandler ended;
    bool formatKnown = false;
    PixelLayout layout = PixelLayout::bgrx;
    QSize size;
    bool over = false;  // the end has been told
};

PipeWireStream::State::~State()
{
    // With the loop thread gone nothing else touches the objects.
    if (loop)
        pw_thread_loop_stop(loop);
    if (stream) {
        spa_hook_remove(&streamListener);
        pw_stream_destroy(stream);
    }
    if (registry) {
        spa_hook_remove(&registryListener);
        pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry));
    }
    if (core) {
        spa_hook_remove(&coreListener);
        pw_core_disconnect(core);
    }
    if (context)
        pw_context_destroy(context);
    if (loop)
        pw_thread_loop_destroy(loop);
    if (fd >= 0)
        ::close(fd);
}

void PipeWireStream::State::end(const QString& reason)
{
    if (over)
        return;
    over = true;
    ended(reason);
}

void PipeWireStream::State::onCoreError(void* data, uint32_t id, int, int result, const char* message)
{
    auto* self = static_cast<State*>(data);
    // Errors of single objects are told to those objects too; the core's own
    // is a lost connection.
    if (id == PW_ID_CORE)
        self->end(QStringLiteral("the connection to PipeWire broke (%1, %2)")
                          .arg(QString::fromUtf8(message), QString::fromUtf8(spa_strerror(result))));
}

void PipeWireStream::State::onGlobalRemove(void* data, uint32_t id)
{
    auto* self = static_cast<State*>(data);
    if (id == self->node)
        self->end(QStringLiteral("the shared screen's stream was removed"));
}

void PipeWireStream::State::onStateChanged(void* data, pw_stream_state, pw_stream_state state, const char* error)
{
    auto* self = static_cast<State*>(data);
    if (state == PW_STREAM_STATE_ERROR)
        self->end(QStringLiteral("the shared screen's stream failed (%1)").arg(QString::fromUtf8(error ? error : "")));
    else if (state == PW_STREAM_STATE_UNCONNECTED)
        self->end(QStringLiteral("the shared screen's stream was disconnected"));
}

void PipeWireStream::State::onParamChanged(void* data, uint32_t id, const spa_pod* param)
{
    auto* self = static_cast<State*>(data);
    if (!param || id != SPA_PARAM_Format)
        return;
    uint32_t mediaType = 0, mediaSubtype = 0;
    spa_video_info_raw raw{};
    if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video
        || mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &raw) < 0
        || !layoutOf(raw.format, &self->layout)) {
        self->formatKnown = false;
        return;
    }
    self->formatKnown = true;
    self->size = QSize(int(raw.size.width), int(raw.size.height));

    // Shared memory only: the pictures are read by the CPU. Each buffer says
    // when its picture was made.
    uint8_t memory[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
    const spa_pod* params[2];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr))));
    params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
            SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
    pw_stream_update_params(self->stream, params, 2);
}

void PipeWireStream::State::onProcess(void* data)
{
    auto* self = static_cast<State*>(data);
    // Only the newest picture counts; older queued ones go back at once.
    pw_buffer* newest = nullptr;
    while (pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream)) {
        if (newest)
            pw_stream_queue_buffer(self->stream, newest);
        newest = buffer;
    }
    if (!newest)
        return;
    spa_buffer* buffer = newest->buffer;
    const auto* header = static_cast<const spa_meta_header*>(
            spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
    // A buffer without a picture (a cursor move alone, or one marked broken)
    // changes nothing.
    const bool corrupted = header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED);
    const spa_data* planes = buffer->n_datas > 0 ? buffer->datas : nullptr;
    if (self->formatKnown && !corrupted && planes && planes->data && planes->maxsize > 0 && planes->chunk->size > 0) {
        const spa_data& plane = *planes;
        BorrowedFrame frame;
        Picture& picture = frame.picture;
        picture.size = self->size;
        picture.stride = plane.chunk->stride > 0 ? plane.chunk->stride : self->size.width() * 4;
        picture.layout = self->layout;
        frame.ptsNs = header ? header->pts : 0;
        const uint32_t offset = plane.chunk->offset % plane.maxsize;
        const int64_t needed = int64_t(picture.stride) * (picture.size.height() - 1) + picture.size.width() * 4;
        if (int64_t(offset) + needed <= int64_t(plane.maxsize)) {
            picture.data = static_cast<const uint8_t*>(plane.data) + offset;
            self->frames(frame);
        }
    }
    pw_stream_queue_buffer(self->stream, newest);
}

PipeWireStream::PipeWireStream()
    : state(std::make_unique<State>())
{
}

PipeWireStream::~PipeWireStream() = default;

bool PipeWireStream::open(int fd, uint32_t node, FrameHandler frames, EndHandler ended)
{
    State& s = *state;
    s.fd = fd;
    s.node = node;
    s.frames = std::move(frames);
    s.ended = std::move(ended);
    initialisePipeWire();
    s.loop = pw_thread_loop_new("ScreenReel PipeWire", nullptr);
    if (s.loop)
        s.context = pw_context_new(pw_thread_loop_get_loop(s.loop), nullptr, 0);
    if (!s.context) {
        qCWarning(lcScreenReel) << "unable to set up PipeWire for the shared screen";
        return false;
    }
    // Nothing runs the loop yet: no lock is needed until it is started.
    s.core = pw_context_connect_fd(s.context, s.fd, nullptr, 0);
    s.fd = -1;  // the core's now, connected or not
    if (!s.core) {
        qCWarning(lcScreenReel) << "unable to connect to PipeWire for the shared screen";
        return false;
    }
    s.coreEvents.version = PW_VERSION_CORE_EVENTS;
    s.coreEvents.error = &State::onCoreError;
    pw_core_add_listener(s.core, &s.coreListener, &s.coreEvents, &s);
    // The node's removal is the end of the share, whatever the stream makes of it.
    s.registry = pw_core_get_registry(s.core, PW_VERSION_REGISTRY, 0);
    if (!s.registry) {
        qCWarning(lcScreenReel) << "unable to watch PipeWire's objects for the shared screen";
        return false;
    }
    s.registryEvents.version = PW_VERSION_REGISTRY_EVENTS;
    s.registryEvents.global_remove = &State::onGlobalRemove;
    pw_registry_add_listener(s.registry, &s.registryListener, &s.registryEvents, &s);

    s.stream = pw_stream_new(s.core, "ScreenReel",
            pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                              PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    if (!s.stream) {
        qCWarning(lcScreenReel) << "unable to make a PipeWire stream for the shared screen";
        return false;
    }
    s.streamEvents.version = PW_VERSION_STREAM_EVENTS;
    s.streamEvents.state_changed = &State::onStateChanged;
    s.streamEvents.param_changed = &State::onParamChanged;
    s.streamEvents.process = &State::onProcess;
    pw_stream_add_listener(s.stream, &s.streamListener, &s.streamEvents, &s);

    // No modifier is offered, so no DMA-BUF is negotiated.
    uint8_t memory[1024];
    spa_pod_builder builder = SPA_POD_BUILDER_INIT(memory, sizeof memory);
    spa_rectangle defaultSize{1920, 1080}, minSize{1, 1}, maxSize{16384, 16384};
    spa_fraction defaultRate{25, 1}, minRate{0, 1}, maxRate{1000, 1};
    const spa_pod* format = static_cast<const spa_pod*>(spa_pod_builder_add_object(&builder,
            SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
            SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format, SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                    SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
            SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&defaultSize, &minSize, &maxSize),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&defaultRate, &minRate, &maxRate)));
    const int connected = pw_stream_connect(s.stream, PW_DIRECTION_INPUT, node,
            pw_stream_flags(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_DONT_RECONNECT),
            &format, 1);
    if (connected < 0) {
        qCWarning(lcScreenReel) << "unable to connect to the shared screen's PipeWire stream ("
                                << spa_strerror(connected) << ")";
        return false;
    }
    if (pw_thread_loop_start(s.loop) < 0) {
        qCWarning(lcScreenReel) << "unable to start PipeWire's loop for the shared screen";
        return false;
    }
    return true;
}

} // namespace orvane
