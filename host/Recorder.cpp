#include "Recorder.h"

#include "Console.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

using namespace std::chrono_literals;

// One frame at the plug-in's 25 a second. stop() encodes one more frame
// than recordedTime() counts.
constexpr std::chrono::milliseconds frameTime = 40ms;
// `recorded` comes every 100 ms; this close to the end the time is polled.
constexpr std::chrono::milliseconds pollFrom = 200ms;

QStringList pluginCandidates()
{
    const QString dir = QCoreApplication::applicationDirPath();
    // The module's name as the build gives it on this system (.so, .dll).
    const QString file = QStringLiteral(SCREENREEL_PLUGIN_FILE);
    return {dir + QStringLiteral("/../lib/screenreel/") + file,
            QStringLiteral(SCREENREEL_INSTALL_PLUGIN_DIR "/") + file,
            dir + QStringLiteral("/../") + file,
            dir + QLatin1Char('/') + file};
}

} // namespace

bool Recorder::load(const QString& path, QTextStream& err)
{
    QStringList candidates = path.isEmpty() ? pluginCandidates() : QStringList{path};
    for (const QString& candidate : candidates) {
        if (!QFileInfo::exists(candidate))
            continue;
        loader.setFileName(candidate);
        QObject* instance = loader.instance();
        if (!instance) {
            err << "cannot load " << candidate << ": " << loader.errorString() << Qt::endl;
            return false;
        }
        reel = qobject_cast<ScreenReel*>(instance);
        ui = qobject_cast<OpaqueUI*>(instance);
        if (!reel || !ui) {
            err << candidate << " is not a ScreenReel plug-in" << Qt::endl;
            return false;
        }
        connect(reel, &ScreenReel::stateChanged, this, &Recorder::stateChanged);
        return true;
    }
    err << "no plug-in found (tried " << candidates.join(QStringLiteral(", ")) << ")" << Qt::endl;
    return false;
}

void Recorder::list(QTextStream& out)
{
    out << "Screens:" << Qt::endl;
    QList<QByteArray> seen;
    for (const auto& device : reel->videoDevices()) {
        if (seen.contains(device.screen))
            continue;
        seen.append(device.screen);
        const QRectF& g = device.geometry;
        out << "  " << device.screen << ": " << g.width() << "x" << g.height() << "+" << g.x() << "+"
            << g.y() << Qt::endl;
    }
    out << "Audio inputs:" << Qt::endl;
    for (const auto& device : reel->audioDevices())
        out << "  " << device.id << ": " << device.name << (device.first ? " (first)" : "") << Qt::endl;
}

bool Recorder::start(const Options& options, QTextStream& err)
{
    std::optional<orvane::plugin::interface::VideoDevice> video;
    for (const auto& device : reel->videoDevices()) {
        if (device.screen == QByteArray::number(options.screen)) {
            video = device;
            break;
        }
    }
    if (!video) {
        err << "no screen " << options.screen << " (see --list)" << Qt::endl;
        return false;
    }

    std::optional<orvane::plugin::interface::AudioDevice> audio;
    if (options.audio != QLatin1String("none")) {
        const bool first = options.audio == QLatin1String("default");
        for (const auto& device : reel->audioDevices()) {
            if (first ? device.first : device.name == options.audio)
                audio = device;
        }
        if (!audio) {
            // Not listed: hand it over all the same, the plug-in says why it fails.
            audio = orvane::plugin::interface::AudioDevice{QByteArray(), first ? QString() : options.audio, false};
        }
    }

    file = std::make_unique<QFile>();
    const bool toFile = options.output != QLatin1String("-");
    if (!toFile) {
        // Straight to the descriptor: a fragment held in a buffer of Qt's or
        // stdio's would be lost to the reader if this process is killed.
        if (!file->open(binaryStandardOutput(), QIODevice::WriteOnly | QIODevice::Unbuffered, QFileDevice::DontCloseHandle)) {
            err << "cannot write to standard output" << Qt::endl;
            return false;
        }
    } else {
        file->setFileName(options.output);
        if (!file->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            err << "cannot write " << options.output << ": " << file->errorString() << Qt::endl;
            return false;
        }
    }

    QRect region = options.region;
    if (region.isEmpty())
        region = QRect(0, 0, int(video->geometry.width()), int(video->geometry.height()));
    started = reel->start(*video, region, audio, file.get());
    if (!started) {
        err << "the recording was refused (see the lines above)" << Qt::endl;
        // Nothing was written: an empty file would only look like a recording.
        file->close();
        const QFileInfo written(options.output);
        if (toFile && written.isFile() && written.size() == 0)
            QFile::remove(options.output);
        return false;
    }
    connect(reel, &ScreenReel::recorded, this, [this](std::chrono::milliseconds time) {
        lastTime = time;
        if (stopAt <= 0ms || stopping)
            return;
        // Not stopped inside `recorded`: the recording's own timer sends it.
        // Queued, the stop comes before any timer, the 5 ms poll included.
        if (time >= stopAt)
            QMetaObject::invokeMethod(this, &Recorder::stop, Qt::QueuedConnection);
        else if (stopAt - time <= pollFrom && !lengthTimer.isActive())
            lengthTimer.start();
    });
    if (options.seconds > 0) {
        // The picture is to be as long as asked: the stop goes by the time
        // recorded, not by the clock, and comes one frame early.
        stopAt = std::max(std::chrono::milliseconds(std::llround(options.seconds * 1000)) - frameTime, 1ms);
        lengthTimer.setTimerType(Qt::PreciseTimer);
        lengthTimer.setInterval(5);
        connect(&lengthTimer, &QTimer::timeout, this, [this] {
            if (reel->recordedTime() >= stopAt)
                stop();
        });
        if (stopAt <= pollFrom)
            lengthTimer.start();
    }
    return true;
}

void Recorder::stop()
{
    lengthTimer.stop();
    if (stopping || ended)
        return;
    stopping = true;
    endTime = reel->recordedTime() + frameTime;
    reel->stop();
}

void Recorder::stateChanged(ScreenReel::State state)
{
    QTextStream err(stderr);
    err << "state: " << (state == ScreenReel::State::Started ? "started" : "stopped") << Qt::endl;
    if (state != ScreenReel::State::Stopped || !started)
        return;
    // Every end of a recording is reported twice; the second comes once the
    // recording is gone and the output is complete.
    if (++stoppedCount == 2) {
        if (!stopping)
            endTime = lastTime;
        ended = true;
        lengthTimer.stop();
        emit finished();
    }
}
