#include "Plugin.h"

#include "SpyEvents.h"
#include "capture/AudioWorker.h"
#include "capture/Platform.h"
#include "capture/ScreenInput.h"
#include "capture/VideoWorker.h"
#ifdef Q_OS_LINUX
#include "capture/PortalVideoWorker.h"
#endif
#include "output/Muxer.h"
#include "pipeline/Logging.h"
#include "pipeline/Pipeline.h"
#include "preview/BufferView.h"

#include <QAudioDeviceInfo>
#include <QGuiApplication>
#include <QHash>
#include <QLayout>
#include <QPointer>
#include <QScreen>
#include <QTimer>
#include <QWindow>

#include <algorithm>

namespace orvane {

using plugin::interface::AudioDevice;
using plugin::interface::VideoDevice;

namespace {

// The inputs as the host last listed them; outlives any one Plugin.
QList<QAudioDeviceInfo> knownAudioDevices;

// The input this session's screens are recorded through.
std::unique_ptr<Source> videoSource(const VideoDevice& device, const QRect& region, Pipeline* pipeline)
{
#ifdef Q_OS_LINUX
    if (currentScreenInput() == ScreenInput::Portal)
        return std::make_unique<PortalVideoWorker>(device, region, pipeline);
#endif
    return std::make_unique<VideoWorker>(device, region, pipeline);
}

} // namespace

Plugin::Plugin()
{
    changeTimer = new QTimer(this);
    changeTimer->setInterval(500);
    connect(changeTimer, &QTimer::timeout, this, [this] {
        changeTimer->stop();
        emit deviceChanged();
    }, Qt::QueuedConnection);

    auto* spy = new SpyEvents(this);
    const auto arm = [this] { changeTimer->start(); };
    connect(spy, &SpyEvents::modified, this, arm, Qt::QueuedConnection);
    auto* app = static_cast<QGuiApplication*>(QCoreApplication::instance());
    connect(app, &QGuiApplication::screenAdded, this, arm, Qt::QueuedConnection);
    connect(app, &QGuiApplication::screenRemoved, this, arm, Qt::QueuedConnection);
    connect(app, &QGuiApplication::primaryScreenChanged, this, arm, Qt::QueuedConnection);
    app->installEventFilter(spy);

    startTimer(5000, Qt::CoarseTimer);
}

Plugin::~Plugin()
{
    // Deleted from the system's dialog: start(), further down the stack, ends
    // the recording it is opening once the input gives up.
    if (opening) {
        emit pipeline->openingCancelled();
        pipeline.release()->setParent(nullptr);
    }
    stop();
    delete view;
}

std::vector<AudioDevice> audioDeviceList(const QStringList& names)
{
    std::vector<AudioDevice> result;
    int counter = 0;
    for (const QString& name : names) {
        AudioDevice device{QByteArray::number(counter++, 10), name, result.empty()};
        const bool known = std::any_of(result.begin(), result.end(),
                                       [&](const AudioDevice& d) { return d.name == device.name; });
        if (!known)
            result.push_back(std::move(device));
    }
    return result;
}

std::vector<AudioDevice> Plugin::audioDevices()
{
    knownAudioDevices = platform::recordableAudioInputs();
    QStringList names;
    for (const QAudioDeviceInfo& info : qAsConst(knownAudioDevices))
        names.append(info.deviceName());
    return audioDeviceList(names);
}

std::vector<VideoDevice> Plugin::videoDevices()
{
    std::vector<VideoDevice> result;
    QHash<QScreen*, int> screenIndex;
    const QList<QScreen*> screens = QGuiApplication::screens();
    for (int i = 0; i < screens.size(); ++i)
        screenIndex.insert(screens.at(i), i);

    const QWindowList windows = QGuiApplication::topLevelWindows();
    for (QWindow* window : windows) {
        const QString title = window->title();
        if (title.isEmpty())
            continue;
        QScreen* screen = window->screen();
        // A window between screens (none, or one the application no longer
        // lists) names no screen that could be recorded: leave it out.
        const auto index = screenIndex.constFind(screen);
        if (index == screenIndex.constEnd())
            continue;

        VideoDevice device;
        device.id = QStringLiteral("{0x%1}")
                        .arg(quint64(quintptr(window)), 16, 16, QLatin1Char('0'))
                        .toLocal8Bit();
        device.screen = QByteArray::number(*index, 10);
        device.name = title;
        // Position stays in Qt's coordinates; the size becomes device pixels.
        QRectF geometry(screen->geometry());
        const double ratio = screen->devicePixelRatio();
        geometry.setSize(QSizeF(ratio * geometry.width(), ratio * geometry.height()));
        device.geometry = geometry;
        device.window = window;
        result.push_back(std::move(device));
    }
    return result;
}

bool Plugin::start(const VideoDevice& video, const QRect& region,
                   const std::optional<AudioDevice>& audio, QIODevice* output)
{
    if (pipeline) {
        qCWarning(lcScreenReel) << "a recording is already running";
        return false;
    }
    if (region.height() > video.geometry.height() || region.width() > video.geometry.width()) {
        qCWarning(lcScreenReel) << "invalid region size";
        return false;
    }
    if (view)
        view->setMinimumSize(int(video.geometry.width() * 0.25), int(video.geometry.height() * 0.25));

    pipeline = std::make_unique<Pipeline>(view, this);
    Pipeline* const current = pipeline.get();
    // Counted before any input opens: the portal's local event loop below
    // may deliver an earlier recording's late end, which must not take it
    // for this one's.
    const quint64 thisRecording = ++recording;
    if (audio)
        current->audio = std::make_unique<AudioWorker>(*audio, current);
    // The portal's input may wait for the user in the system's dialog, in a
    // local event loop: a stop meanwhile cancels it, a start is refused, and
    // the host may even delete the plug-in.
    const QPointer<Plugin> alive(this);
    opening = true;
    current->video = videoSource(video, region, current);
    if (!alive) {
        delete current;
        return false;
    }
    opening = false;
    std::optional<AudioFormat> format;
    if (current->audio)
        format = current->audio->audioFormat();
    current->target = std::make_unique<Muxer>(current->video->videoSize(), format, output, current);

    connect(current, &Pipeline::startedChanged, this, [this] { emit stateChanged(State::Started); });
    connect(current, &Pipeline::stopedChanged, this, [this, thisRecording] {
        pipelineStopped(thisRecording);
    });
    connect(current, &Pipeline::recorded, this, [this](std::chrono::milliseconds time) {
        emit recorded(time);
    });
    // On failure the Pipeline is gone when this returns; the result is held here.
    return current->start();
}

void Plugin::pipelineStopped(quint64 stopped)
{
    // A queued end of an earlier recording may arrive while a newer one runs:
    // it must neither end nor seem to end the newer one.
    if (pipeline && stopped != recording)
        return;
    pipeline.reset();
    emit stateChanged(State::Stopped);
}

void Plugin::stop()
{
    if (!pipeline)
        return;
    // start() ends the recording it is opening once the input gives up.
    if (opening) {
        emit pipeline->openingCancelled();
        return;
    }
    pipeline->stop();
    // On the GUI thread the stop's own signal has already deleted it.
    pipeline.reset();
}

std::chrono::milliseconds Plugin::recordedTime()
{
    return pipeline ? pipeline->recordedTime() : std::chrono::milliseconds(0);
}

void Plugin::createView(QLayout* layout, bool showRate)
{
    if (view)
        return;
    view = new BufferView(nullptr, showRate);
    connect(view, &QObject::destroyed, this, [this] { view = nullptr; });
    layout->addWidget(view);
}

void Plugin::timerEvent(QTimerEvent*)
{
    if (knownAudioDevices.isEmpty())
        return;
    if (platform::recordableAudioInputs() != knownAudioDevices)
        changeTimer->start();
}

} // namespace orvane
