// screenreel-test-portal: a ScreenCast portal backend for tests, run beside
// the real portal frontend on a private session bus. Each share is a
// PipeWire video source painting a known picture: four quadrants, red,
// green, blue and white, each buffer stamped with its time.
// Control methods beside the portal's own set how the next dialog answers
// and end a share as a compositor would.
//
//   screenreel-test-portal --monitor WxH+X+Y

#include <QtDBus>

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>

#include <atomic>
#include <ctime>

struct Stream { uint node = 0; QVariantMap properties; };

QDBusArgument& operator<<(QDBusArgument& a, const Stream& s)
{
    a.beginStructure(); a << s.node << s.properties; a.endStructure(); return a;
}
// Only sent, never received.
const QDBusArgument& operator>>(const QDBusArgument& a, Stream&) { return a; }

Q_DECLARE_METATYPE(Stream)

namespace {

// The 32-bit pixel of a colour in one of the four layouts, as it lies in
// memory on a little-endian machine.
uint32_t pixel(spa_video_format format, uint8_t r, uint8_t g, uint8_t b)
{
    const bool rgb = format == SPA_VIDEO_FORMAT_RGBx || format == SPA_VIDEO_FORMAT_RGBA;
    const bool alpha = format == SPA_VIDEO_FORMAT_BGRA || format == SPA_VIDEO_FORMAT_RGBA;
    const uint32_t low = rgb ? r : b, high = rgb ? b : r;
    return low | uint32_t(g) << 8 | high << 16 | (alpha ? 0xff000000u : 0);
}

// One shared monitor: a driving PipeWire stream, painting on the loop's
// thread at 25 a second.
struct Share
{
    pw_thread_loop* loop = nullptr;
    pw_stream* stream = nullptr;
    spa_hook listener{};
    spa_source* timer = nullptr;
    QSize size;
    spa_video_format format = SPA_VIDEO_FORMAT_BGRx;
    bool silent = false;
    const std::atomic<bool>* still = nullptr;
    uint64_t ticks = 0;  // while streaming
    uint32_t node = SPA_ID_INVALID;

    static void onState(void* data, pw_stream_state, pw_stream_state, const char*)
    {
        pw_thread_loop_signal(static_cast<Share*>(data)->loop, false);
    }

    static void onParam(void* data, uint32_t id, const spa_pod* param)
    {
        auto* self = static_cast<Share*>(data);
        if (!param || id != SPA_PARAM_Format)
            return;
        const int stride = self->size.width() * 4;
        uint8_t bytes[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
        const spa_pod* params[] = {
            static_cast<const spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
                SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8),
                SPA_PARAM_BUFFERS_size, SPA_POD_Int(stride * self->size.height()),
                SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd))),
            static_cast<const spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
                SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
                SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header)))),
        };
        pw_stream_update_params(self->stream, params, 2);
    }

    static void onTimer(void* data, uint64_t)
    {
        // Still: a picture at once and then once a second, as a compositor's
        // rare repaint, so that a first one lost while the consumer settles
        // is not the only one.
        auto* self = static_cast<Share*>(data);
        if (self->silent || pw_stream_get_state(self->stream, nullptr) != PW_STREAM_STATE_STREAMING)
            return;
        if (!self->still->load() || self->ticks++ % 25 == 0)
            pw_stream_trigger_process(self->stream);
    }

    static void onProcess(void* data)
    {
        auto* self = static_cast<Share*>(data);
        pw_buffer* buffer = pw_stream_dequeue_buffer(self->stream);
        if (!buffer)
            return;
        spa_data& d = buffer->buffer->datas[0];
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (!buffer->user_data)  // mapped (memfd), and painted once
            self->paint(static_cast<uint8_t*>(d.data));
        buffer->user_data = self;
        if (auto* h = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header))))
            *h = spa_meta_header{0, 0, int64_t(SPA_TIMESPEC_TO_NSEC(&now)), 0, 0};
        d.chunk->stride = self->size.width() * 4;
        d.chunk->size = d.chunk->stride * self->size.height();
        pw_stream_queue_buffer(self->stream, buffer);
    }

    void paint(uint8_t* data)
    {
        const int w = size.width(), h = size.height();
        const uint32_t colours[] = {pixel(format, 255, 0, 0), pixel(format, 0, 255, 0), pixel(format, 0, 0, 255),
                                    pixel(format, 255, 255, 255)};
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                reinterpret_cast<uint32_t*>(data)[size_t(y) * w + x] = colours[(y >= h / 2) * 2 + (x >= w / 2)];
    }

    // Connected, and given a node id unless PipeWire failed it.
    static Share* create(pw_thread_loop* loop, pw_core* core, QSize size, spa_video_format format, bool silent,
                         const std::atomic<bool>* still)
    {
        static const pw_stream_events events{PW_VERSION_STREAM_EVENTS, nullptr, onState, nullptr, nullptr, onParam,
                                             nullptr, nullptr, onProcess, nullptr, nullptr, nullptr};
        auto* self = new Share{loop, nullptr, {}, nullptr, size, format, silent, still};
        pw_thread_loop_lock(loop);
        self->timer = pw_loop_add_timer(pw_thread_loop_get_loop(loop), onTimer, self);
        timespec first{0, 1}, interval{0, 40 * SPA_NSEC_PER_MSEC};
        pw_loop_update_timer(pw_thread_loop_get_loop(loop), self->timer, &first, &interval, false);
        self->stream = pw_stream_new(core, "screenreel-test-monitor",
                                     pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr));
        pw_stream_add_listener(self->stream, &self->listener, &events, self);
        uint8_t bytes[1024];
        spa_pod_builder b = SPA_POD_BUILDER_INIT(bytes, sizeof(bytes));
        const spa_rectangle rect = SPA_RECTANGLE(uint32_t(size.width()), uint32_t(size.height()));
        const spa_fraction none = SPA_FRACTION(0, 1), max = SPA_FRACTION(25, 1), least = SPA_FRACTION(1, 1);
        const spa_pod* format_ = static_cast<const spa_pod*>(spa_pod_builder_add_object(&b,
            SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
            SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
            SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
            SPA_FORMAT_VIDEO_format, SPA_POD_Id(format),
            SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&rect),
            SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&none),
            SPA_FORMAT_VIDEO_maxFramerate, SPA_POD_CHOICE_RANGE_Fraction(&max, &least, &max)));
        // Like a compositor's: frames when there is something to show, at most 25 a second.
        pw_stream_connect(self->stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                          pw_stream_flags(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), &format_, 1);
        while (pw_stream_get_node_id(self->stream) == SPA_ID_INVALID && pw_stream_get_state(self->stream, nullptr) != PW_STREAM_STATE_ERROR)
            if (pw_thread_loop_timed_wait(loop, 5) != 0)
                break;
        self->node = pw_stream_get_node_id(self->stream);
        pw_thread_loop_unlock(loop);
        return self;
    }

    ~Share()
    {
        pw_thread_loop_lock(loop);
        pw_stream_destroy(stream);
        pw_loop_destroy_source(pw_thread_loop_get_loop(loop), timer);
        pw_thread_loop_unlock(loop);
    }
};

// org.freedesktop.impl.portal.Session: closed by the frontend, or ends itself.
class Session : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.impl.portal.Session")

public:
    std::unique_ptr<Share> share;
    bool restored = false;  // the SelectSources brought restore data, which only we give
    uint persist = 0;  // asked for: 1 while the client runs, 2 until revoked

public slots:
    void Close() { deleteLater(); }  // unregistered as it goes

signals:
    void Closed();
};

// The ScreenCast implementation, and after it the tests' controls.
class Backend : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.impl.portal.ScreenCast")
    Q_PROPERTY(uint AvailableSourceTypes READ sourceTypes CONSTANT)
    Q_PROPERTY(uint AvailableCursorModes READ cursorModes CONSTANT)
    Q_PROPERTY(uint version READ version CONSTANT)

public:
    Backend(const QRect& monitor, pw_thread_loop* loop, pw_core* core) : monitor(monitor), loop(loop), core(core) {}
    uint sourceTypes() const { return 1; }     // monitors
    uint cursorModes() const { return 1 | 2; } // hidden, embedded
    uint version() const { return 4; }

    const QRect monitor;
    pw_thread_loop* const loop;
    pw_core* const core;
    QString answer = "share";
    QString formatName = "BGRx";
    std::atomic<bool> still{false};
    uint scale = 1;
    uint dialogs = 0;
    QPointer<Session> current;  // of the latest share

public slots:
    uint CreateSession(const QDBusObjectPath&, const QDBusObjectPath& handle, const QString&, const QVariantMap&,
                       QVariantMap&)
    {
        QDBusConnection::sessionBus().registerObject(handle.path(), new Session,
            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals | QDBusConnection::ExportAllProperties);
        return 0;
    }

    uint SelectSources(const QDBusObjectPath&, const QDBusObjectPath& handle, const QString&, const QVariantMap& options,
                       QVariantMap&)
    {
        auto* session = static_cast<Session*>(QDBusConnection::sessionBus().objectRegisteredAt(handle.path()));
        session->restored = options.contains("restore_data");
        session->persist = options.value("persist_mode").toUInt();
        return 0;
    }

    uint Start(const QDBusObjectPath&, const QDBusObjectPath& handle, const QString&, const QString&, const QVariantMap&,
               QVariantMap& results)
    {
        auto* session = static_cast<Session*>(QDBusConnection::sessionBus().objectRegisteredAt(handle.path()));
        const QString how = session->restored ? "share" : std::exchange(answer, "share");
        dialogs += !session->restored;
        if (how == "cancel" || how == "fail")
            return how == "cancel" ? 1 : 2;
        const QRect shared = how == "other" ? QRect(1920, 0, 1280, 720) : monitor;
        const auto format = formatName == "RGBx" ? SPA_VIDEO_FORMAT_RGBx : formatName == "BGRA" ? SPA_VIDEO_FORMAT_BGRA
                            : formatName == "RGBA" ? SPA_VIDEO_FORMAT_RGBA : SPA_VIDEO_FORMAT_BGRx;
        session->share.reset(Share::create(loop, core, shared.size() * int(std::exchange(scale, 1)), format, how == "silent", &still));
        if (session->share->node == SPA_ID_INVALID)
            return 2;
        current = session;
        results["streams"] = QVariant::fromValue(QList<Stream>{{session->share->node, {{"position", shared.topLeft()},
                                                                                       {"size", shared.size()},
                                                                                       {"source_type", 1u}}}});
        if (session->persist && how == "share") {
            results["persist_mode"] = session->persist;
            QDBusArgument restore;  // (suv), kept by the frontend and handed back as is
            restore.beginStructure();
            restore << QString("screenreeltest") << 1u << QDBusVariant("share");
            restore.endStructure();
            results["restore_data"] = QVariant::fromValue(restore);
        }
        return 0;
    }

    // "share", "cancel", "other", "silent" or "fail": the next dialog's answer.
    void SetAnswer(const QString& next) { answer = next; }
    void SetStill(bool on) { still = on; }
    // The next node's buffers at this many times the monitor's size, which
    // the portal still says, as a scaled monitor's may be.
    void SetScale(uint factor) { scale = factor; }
    // "BGRx", "RGBx", "BGRA" or "RGBA": what the next node offers.
    void SetFormat(const QString& name) { formatName = name; }
    // As a compositor or the user ends it: the node goes, the session closes.
    void EndShare()
    {
        if (current) {
            emit current->Closed();
            current->Close();
        }
    }
    uint Dialogs() { return dialogs; }
};

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    qDBusRegisterMetaType<Stream>();
    qDBusRegisterMetaType<QList<Stream>>();
    const QStringList m = app.arguments().value(2).split(QRegularExpression("[x+]"));
    if (app.arguments().value(1) != "--monitor" || m.size() != 4)
        qFatal("usage: screenreel-test-portal --monitor WxH+X+Y");
    const QRect monitor(m[2].toInt(), m[3].toInt(), m[0].toInt(), m[1].toInt());

    pw_init(&argc, &argv);
    pw_thread_loop* loop = pw_thread_loop_new("test-portal", nullptr);
    pw_context* context = pw_context_new(pw_thread_loop_get_loop(loop), nullptr, 0);
    pw_core* core = context ? pw_context_connect(context, nullptr, 0) : nullptr;
    if (!core)
        qFatal("screenreel-test-portal: no PipeWire");
    pw_thread_loop_start(loop);

    Backend backend(monitor, loop, core);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.registerObject("/org/freedesktop/portal/desktop", &backend,
                            QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllProperties)
        || !bus.registerService("org.freedesktop.impl.portal.desktop.screenreeltest"))
        qFatal("screenreel-test-portal: %s", qPrintable(bus.lastError().message()));
    return app.exec();  // runs until a signal ends the process
}

#include "TestPortal.moc"
