#include "Recorder.h"

#include <QAudioDeviceInfo>
#include <QCoreApplication>
#include <QFileInfo>
#include <QGuiApplication>
#include <QScreen>

#include <cstdio>

namespace {

QStringList pluginCandidates()
{
    const QString dir = QCoreApplication::applicationDirPath();
    return {dir + QStringLiteral("/../lib/screenreel/libScreenReel.so"),
            QStringLiteral(SCREENREEL_INSTALL_PLUGIN_DIR "/libScreenReel.so"),
            dir + QStringLiteral("/../libScreenReel.so"),
            dir + QStringLiteral("/libScreenReel.so")};
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
        QString name = options.audio;
        if (name == QLatin1String("default"))
            name = QAudioDeviceInfo::defaultInputDevice().deviceName();
        for (const auto& device : reel->audioDevices()) {
            if (device.name == name)
                audio = device;
        }
        if (!audio) {
            // Not listed: hand it over all the same, the plug-in says why it fails.
            audio = orvane::plugin::interface::AudioDevice{QByteArray(), name, false};
        }
    }

    file = std::make_unique<QFile>();
    if (options.output == QLatin1String("-")) {
        outputName = QStringLiteral("standard output");
        if (!file->open(stdout, QIODevice::WriteOnly, QFileDevice::DontCloseHandle)) {
            err << "cannot write to standard output" << Qt::endl;
            return false;
        }
    } else {
        outputName = options.output;
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
    if (!started)
        err << "the recording was refused (see the lines above)" << Qt::endl;
    return started;
}

void Recorder::stop()
{
    stopping = true;
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
        ended = true;
        emit finished();
    }
}
