#pragma once

#include "interface/ScreenReel.h"

#include <QFile>
#include <QObject>
#include <QPluginLoader>
#include <QTextStream>
#include <QTimer>

#include <chrono>
#include <memory>

// Loads the plug-in and runs one recording through its two interfaces.
class Recorder : public QObject
{
    Q_OBJECT

public:
    using ScreenReel = orvane::plugin::interface::ScreenReel;
    using OpaqueUI = orvane::plugin::interface::OpaqueUI;

    struct Options
    {
        QString output;       // file path, or "-" for standard output
        int screen = 0;
        QRect region;         // empty: the whole screen
        QString audio;        // device name, "default" (the first listed) or "none"
        double seconds = 0;   // 0: until stopped
    };

    // Finds the plug-in beside this program's install or build location, or at `path`.
    bool load(const QString& path, QTextStream& err);
    ScreenReel* screenReel() const { return reel; }
    OpaqueUI* opaqueUI() const { return ui; }

    void list(QTextStream& out);
    // Starts; false with a reason on `err` when the plug-in refuses. A
    // refused start leaves no file of its own behind.
    bool start(const Options& options, QTextStream& err);
    // Ends the recording; finished() follows once the output is complete.
    void stop();

    // Whether the recording ended without being asked to.
    bool endedByItself() const { return ended && !stopping; }
    // The recorded time when the recording ended.
    std::chrono::milliseconds recordedTime() const { return endTime; }

signals:
    void finished();

private:
    void stateChanged(ScreenReel::State state);

    QPluginLoader loader;
    ScreenReel* reel = nullptr;
    OpaqueUI* ui = nullptr;
    std::unique_ptr<QFile> file;
    std::chrono::milliseconds stopAt{0};     // with --seconds: where stop() is called
    std::chrono::milliseconds lastTime{0};   // as `recorded` last said
    std::chrono::milliseconds endTime{0};
    QTimer lengthTimer;                       // polls the recorded time near stopAt
    int stoppedCount = 0;
    bool started = false;
    bool stopping = false;
    bool ended = false;
};
