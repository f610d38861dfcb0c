#include "ScreenCastPortal.h"

#include "pipeline/Logging.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QDBusVariant>
#include <QEventLoop>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <cmath>

namespace orvane {

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString screenCastInterface = QStringLiteral("org.freedesktop.portal.ScreenCast");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString sessionInterface = QStringLiteral("org.freedesktop.portal.Session");

// A bus without the portal answers at once; one that starts it on demand
// takes a moment.
constexpr int propertiesTimeoutMs = 5000;
// The steps that no user takes part in.
constexpr int systemTimeoutMs = 10000;

constexpr uint monitorSource = 1;
constexpr uint hiddenCursor = 1;
constexpr uint embeddedCursor = 2;
// The choice is kept while the process runs: the plug-in has no settings to
// keep it in.
constexpr uint persistWhileRunning = 1;

constexpr uint responseCancelled = 1;

// The token of the user's last choice, which a later session hands back so
// that the dialog is not shown again. Each one is good for one session.
QString restoreToken;
quint64 tokens = 0;

QString newToken()
{
    return QStringLiteral("screenreel%1").arg(++tokens);
}

int rounded(double value)
{
    return int(std::lround(value));
}

bool readPair(const QVariant& value, int* first, int* second)
{
    if (!value.canConvert<QDBusArgument>())
        return false;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginStructure();
    argument >> *first >> *second;
    argument.endStructure();
    return true;
}

std::vector<SharedStream> readStreams(const QVariant& value)
{
    std::vector<SharedStream> streams;
    if (!value.canConvert<QDBusArgument>())
        return streams;
    const QDBusArgument argument = value.value<QDBusArgument>();
    argument.beginArray();
    while (!argument.atEnd()) {
        SharedStream stream;
        QVariantMap properties;
        argument.beginStructure();
        argument >> stream.node >> properties;
        argument.endStructure();
        int a = 0, b = 0;
        if (readPair(properties.value(QStringLiteral("position")), &a, &b))
            stream.position = QPoint(a, b);
        if (readPair(properties.value(QStringLiteral("size")), &a, &b))
            stream.size = QSize(a, b);
        streams.push_back(stream);
    }
    argument.endArray();
    return streams;
}

} // namespace

// Takes the Response signal of one request.
class ResponseCatcher : public QObject
{
    Q_OBJECT

public:
    bool answered = false;
    uint code = 0;
    QVariantMap results;

signals:
    void done();

public slots:
    void take(uint response, const QVariantMap& values)
    {
        if (answered)
            return;
        answered = true;
        code = response;
        results = values;
        emit done();
    }
};

struct ScreenCastPortal::Answer
{
    bool answered = false;  // false: an error, a time-out or a cancel, already logged where it matters
    uint code = 0;
    QVariantMap results;
    QString error;
};

int streamForScreen(const std::vector<SharedStream>& streams, const QRectF& screen, qreal ratio)
{
    const QPoint place(rounded(screen.x()), rounded(screen.y()));
    const QSize size(rounded(screen.width()), rounded(screen.height()));
    const QSize logical(rounded(screen.width() / ratio), rounded(screen.height() / ratio));
    for (size_t i = 0; i < streams.size(); ++i) {
        const SharedStream& stream = streams[i];
        if ((stream.size == size || stream.size == logical) && (!stream.position || *stream.position == place))
            return int(i);
    }
    return -1;
}

ScreenCastPortal::~ScreenCastPortal()
{
    if (remote >= 0)
        ::close(remote);
    // Ends the share; the answer is not waited for.
    if (!session.isEmpty())
        QDBusConnection::sessionBus().asyncCall(QDBusMessage::createMethodCall(
                portalService, session, sessionInterface, QStringLiteral("Close")));
}

int ScreenCastPortal::takeRemote()
{
    const int taken = remote;
    remote = -1;
    return taken;
}

void ScreenCastPortal::cancel()
{
    cancelled = true;
    if (waiting)
        waiting->quit();
}

ScreenCastPortal::Answer ScreenCastPortal::request(const QString& method, QList<QVariant> arguments,
                                                   QVariantMap options, std::optional<int> timeoutMs)
{
    Answer answer;
    QDBusConnection bus = QDBusConnection::sessionBus();
    const QString token = newToken();
    // The portal answers on a request object whose path it makes from our
    // name on the bus and the token; listening before the call catches an
    // answer that comes before the call's reply.
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    QString path = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    ResponseCatcher catcher;
    const char* slot = SLOT(take(uint, QVariantMap));
    bus.connect(portalService, path, requestInterface, QStringLiteral("Response"), &catcher, slot);

    options.insert(QStringLiteral("handle_token"), token);
    arguments.append(options);
    QDBusMessage call = QDBusMessage::createMethodCall(portalService, portalPath, screenCastInterface, method);
    call.setArguments(arguments);
    QDBusPendingCallWatcher watcher(bus.asyncCall(call, systemTimeoutMs));

    QEventLoop loop;
    QTimer limit;
    limit.setSingleShot(true);
    QObject::connect(&catcher, &ResponseCatcher::done, &loop, &QEventLoop::quit);
    QObject::connect(&limit, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, [&] {
        const QDBusPendingReply<QDBusObjectPath> reply = watcher;
        if (reply.isError()) {
            answer.error = reply.error().message();
            loop.quit();
            return;
        }
        // An older portal makes the path its own way.
        const QString handle = reply.value().path();
        if (handle != path) {
            bus.disconnect(portalService, path, requestInterface, QStringLiteral("Response"), &catcher, slot);
            path = handle;
            bus.connect(portalService, path, requestInterface, QStringLiteral("Response"), &catcher, slot);
        }
    });
    if (timeoutMs)
        limit.start(*timeoutMs);
    if (!cancelled) {
        waiting = &loop;
        loop.exec();
        waiting = nullptr;
    }
    bus.disconnect(portalService, path, requestInterface, QStringLiteral("Response"), &catcher, slot);
    if (catcher.answered) {
        answer.answered = true;
        answer.code = catcher.code;
        answer.results = catcher.results;
        return answer;
    }
    if (answer.error.isEmpty())
        answer.error = cancelled ? QStringLiteral("cancelled") : QStringLiteral("no answer in time");
    // Whatever the portal still shows for it goes.
    bus.asyncCall(QDBusMessage::createMethodCall(portalService, path, requestInterface, QStringLiteral("Close")));
    return answer;
}

bool ScreenCastPortal::share()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        qCWarning(lcScreenReel) << "no session bus, so no screen-sharing portal: a Wayland screen cannot be recorded";
        return false;
    }
    QDBusMessage ask = QDBusMessage::createMethodCall(portalService, portalPath,
            QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"));
    ask.setArguments({screenCastInterface});
    const QDBusMessage properties = bus.call(ask, QDBus::Block, propertiesTimeoutMs);
    if (properties.type() != QDBusMessage::ReplyMessage || properties.arguments().isEmpty()) {
        qCWarning(lcScreenReel).noquote()
                << "no screen-sharing portal on the session bus: a Wayland screen cannot be recorded ("
                   + properties.errorMessage() + ")";
        return false;
    }
    const QVariantMap values = qdbus_cast<QVariantMap>(properties.arguments().constFirst());
    const uint version = values.value(QStringLiteral("version")).toUInt();
    const uint cursorModes = values.value(QStringLiteral("AvailableCursorModes")).toUInt();
    if (!(values.value(QStringLiteral("AvailableSourceTypes")).toUInt() & monitorSource)) {
        qCWarning(lcScreenReel) << "the screen-sharing portal offers no monitors to record";
        return false;
    }

    const auto stopped = [this] {
        if (cancelled)
            qCWarning(lcScreenReel) << "the recording was stopped while the screen-sharing portal was being asked";
        return cancelled;
    };
    Answer created = request(QStringLiteral("CreateSession"), {},
            {{QStringLiteral("session_handle_token"), newToken()}}, systemTimeoutMs);
    if (!created.answered || created.code != 0) {
        if (stopped())
            return false;
        qCWarning(lcScreenReel).noquote() << QStringLiteral("the screen-sharing portal did not open a session (%1)")
                                                     .arg(created.answered ? QString::number(created.code) : created.error);
        return false;
    }
    session = created.results.value(QStringLiteral("session_handle")).toString();
    const QDBusObjectPath sessionPath(session);

    QVariantMap sources{{QStringLiteral("types"), monitorSource}, {QStringLiteral("multiple"), false}};
    if (version >= 2)
        sources.insert(QStringLiteral("cursor_mode"), cursorModes & embeddedCursor ? embeddedCursor : hiddenCursor);
    if (version >= 4) {
        sources.insert(QStringLiteral("persist_mode"), persistWhileRunning);
        if (!restoreToken.isEmpty())
            sources.insert(QStringLiteral("restore_token"), restoreToken);
    }
    Answer selected = request(QStringLiteral("SelectSources"), {QVariant::fromValue(sessionPath)}, sources,
                              systemTimeoutMs);
    if (!selected.answered || selected.code != 0) {
        if (stopped())
            return false;
        qCWarning(lcScreenReel).noquote() << QStringLiteral("the screen-sharing portal refused the choice of a monitor (%1)")
                                                     .arg(selected.answered ? QString::number(selected.code) : selected.error);
        return false;
    }

    // The system's dialog: as long as the user needs.
    Answer started = request(QStringLiteral("Start"), {QVariant::fromValue(sessionPath), QString()}, {},
                             std::nullopt);
    if (stopped())
        return false;
    if (!started.answered) {
        qCWarning(lcScreenReel).noquote() << "the screen-sharing portal did not start (" + started.error + ")";
        return false;
    }
    if (started.code == responseCancelled) {
        qCWarning(lcScreenReel) << "screen sharing was cancelled in the system's dialog";
        return false;
    }
    if (started.code != 0) {
        qCWarning(lcScreenReel).noquote()
                << QStringLiteral("the system refused to share the screen (portal response %1)").arg(started.code);
        return false;
    }
    // Used or not, the old token is spent.
    restoreToken = started.results.value(QStringLiteral("restore_token")).toString();
    shared = readStreams(started.results.value(QStringLiteral("streams")));

    QDBusMessage open = QDBusMessage::createMethodCall(portalService, portalPath, screenCastInterface,
                                                       QStringLiteral("OpenPipeWireRemote"));
    open.setArguments({QVariant::fromValue(sessionPath), QVariantMap()});
    const QDBusReply<QDBusUnixFileDescriptor> descriptor = bus.call(open, QDBus::Block, systemTimeoutMs);
    if (!descriptor.isValid() || !descriptor.value().isValid()) {
        qCWarning(lcScreenReel).noquote()
                << "the screen-sharing portal gave no PipeWire connection (" + descriptor.error().message() + ")";
        return false;
    }
    // The reply's descriptor closes with it.
    remote = ::fcntl(descriptor.value().fileDescriptor(), F_DUPFD_CLOEXEC, 3);
    return remote >= 0;
}

} // namespace orvane

#include "ScreenCastPortal.moc"
