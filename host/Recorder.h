#pragma once

#include "interface/OpaqueUI.h"
#include "interface/ScreenReel.h"

#include <QFile>
#include <QObject>
#include <QPluginLoader>
#include <QTextStream>

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
        QString audio;        // device name, "default" or "none"
        double seconds = 0;   // 0: until stopped
    };

    // Finds the plug-in beside this program's install or build location, or at `path`.
    bool load(const QString& path, QTextStream& err);
    ScreenReel* screenReel() const { return reel; }
    OpaqueUI* opaqueUI() const { return ui; }

    void list(QTextStream& out);
    // Starts; false with a reason on `err` when the plug-in refuses.
    bool start(const Options& options, QTextStream& err);
    void stop();

    // Whether the recording ended without being asked to.
    bool endedByItself() const { return ended && !stopping; }

signals:
    void finished();

private:
    void stateChanged(ScreenReel::State state);

    QPluginLoader loader;
    ScreenReel* reel = nullptr;
    OpaqueUI* ui = nullptr;
    std::unique_ptr<QFile> file;
    QString outputName;
    int stoppedCount = 0;
    bool started = false;
    bool stopping = false;
    bool ended = false;
};
