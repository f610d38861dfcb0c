// screenreel-record: records a screen, or a region of it, with or without
// sound, to an MP4 file or to standard output, through the ScreenReel plug-in.

#include "Console.h"
#include "Recorder.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLoggingCategory>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

#include <cstring>
#include <memory>

extern "C" {
#include <libavutil/log.h>
}

namespace {

bool parseRegion(const QString& text, QRect* region)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d+)x(\\d+)(?:\\+(\\d+)\\+(\\d+))?$"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return false;
    *region = QRect(match.captured(3).toInt(), match.captured(4).toInt(), match.captured(1).toInt(),
                    match.captured(2).toInt());
    return true;
}

QString formatTime(std::chrono::milliseconds time)
{
    const qint64 ms = time.count();
    return QStringLiteral("%1:%2.%3")
        .arg(ms / 60000)
        .arg((ms / 1000) % 60, 2, 10, QLatin1Char('0'))
        .arg((ms / 100) % 10);
}

// Help is answered without a display, so it needs no desktop to run on.
bool asksForHelp(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        for (const char* help : {"-h", "--help", "--help-all", "-?"}) {
            if (std::strcmp(argv[i], help) == 0)
                return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    // The window holds plain widgets: no OpenGL stack (on Mesa 50 MiB of
    // software renderer) is loaded for it.
    QApplication::setAttribute(Qt::AA_ForceRasterWidgets);
    const std::unique_ptr<QCoreApplication> app = asksForHelp(argc, argv)
                                                      ? std::make_unique<QCoreApplication>(argc, argv)
                                                      : std::make_unique<QApplication>(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("screenreel-record"));
    QTextStream out(stdout);
    QTextStream err(stderr);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Records the screen to an MP4 file."));
    parser.addHelpOption();
    const QCommandLineOption list(QStringLiteral("list"), QStringLiteral("List screens and audio inputs."));
    const QCommandLineOption output({QStringLiteral("o"), QStringLiteral("output")},
                                    QStringLiteral("Write to FILE (- for standard output)."),
                                    QStringLiteral("FILE"));
    const QCommandLineOption screen(QStringLiteral("screen"), QStringLiteral("Record screen N (default 0)."),
                                    QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption region(QStringLiteral("region"),
                                    QStringLiteral("Record WxH+X+Y of the screen (default: all of it)."),
                                    QStringLiteral("WxH+X+Y"));
    const QCommandLineOption audio(QStringLiteral("audio"),
                                   QStringLiteral("Record sound from NAME, the first listed input, or none."),
                                   QStringLiteral("NAME|default|none"), QStringLiteral("default"));
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("Stop when S seconds are recorded (default: on Stop, Ctrl+C "
                                                    "or closing the window)."),
                                     QStringLiteral("S"));
    const QCommandLineOption showRate(QStringLiteral("show-rate"), QStringLiteral("Show the preview's frame rate."));
    const QCommandLineOption noPreview(QStringLiteral("no-preview"), QStringLiteral("Show no window."));
    const QCommandLineOption verbose(QStringLiteral("verbose"),
                                     QStringLiteral("Also print FFmpeg's information lines (stream dumps, encoder "
                                                    "settings and statistics) and the plug-in's plain debug lines."));
    // Not "--plugin": QGuiApplication takes that for its own and removes it.
    const QCommandLineOption plugin(QStringLiteral("plugin-file"), QStringLiteral("Load the plug-in from PATH."),
                                    QStringLiteral("PATH"));
    parser.addOptions({list, output, screen, region, audio, seconds, showRate, noPreview, verbose, plugin});
    parser.process(*app);

    if (!parser.isSet(verbose)) {
        // FFmpeg's log is one global of the process, and the host's to set:
        // at warnings, its stream dumps, encoder banners and statistics stay
        // out of stderr. The plug-in's two plain debug lines on the choice of
        // grabber go the same way. QT_LOGGING_RULES still overrides this.
        av_log_set_level(AV_LOG_WARNING);
        QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false\ndefault.info=false"));
    }

    Recorder recorder;
    if (!recorder.load(parser.value(plugin), err))
        return 2;

    // The plug-in records the screen of a titled window of its host: one
    // hidden anchor per screen makes every screen selectable.
    std::vector<std::unique_ptr<QWindow>> anchors;
    for (QScreen* s : QGuiApplication::screens()) {
        auto anchor = std::make_unique<QWindow>(s);
        anchor->setTitle(QStringLiteral("ScreenReel anchor"));
        anchors.push_back(std::move(anchor));
    }

    if (parser.isSet(list)) {
        recorder.list(out);
        return 0;
    }
    if (!parser.isSet(output)) {
        err << "no output given (-o FILE or -o -)" << Qt::endl;
        parser.showHelp(2);
    }

    Recorder::Options options;
    options.output = parser.value(output);
    bool ok = false;
    options.screen = parser.value(screen).toInt(&ok);
    if (!ok) {
        err << "--screen takes a number" << Qt::endl;
        return 2;
    }
    if (parser.isSet(region)) {
        if (!parseRegion(parser.value(region), &options.region)) {
            err << "--region takes WxH+X+Y" << Qt::endl;
            return 2;
        }
        if (options.region.isEmpty()) {
            err << "--region " << parser.value(region)
                << ": width and height must be above 0 (without --region the whole screen is recorded)" << Qt::endl;
            return 2;
        }
    }
    options.audio = parser.value(audio);
    if (parser.isSet(seconds)) {
        options.seconds = parser.value(seconds).toDouble(&ok);
        if (!ok || options.seconds <= 0) {
            err << "--seconds takes a positive number" << Qt::endl;
            return 2;
        }
    }

    const bool toStandardOutput = options.output == QLatin1String("-");
    const QString target = toStandardOutput ? QStringLiteral("standard output")
                                            : QFileInfo(options.output).absoluteFilePath();
    const QString limit = options.seconds > 0
                              ? QStringLiteral(" of %1").arg(formatTime(std::chrono::milliseconds(
                                  qint64(options.seconds * 1000))))
                              : QString();

    // The window says what is recorded where, and how it ends.
    QWidget window;
    window.setWindowTitle(QStringLiteral("Recording to %1 - ScreenReel")
                              .arg(toStandardOutput ? target : QFileInfo(options.output).fileName()));
    auto* layout = new QVBoxLayout(&window);
    auto* status = new QLabel;
    status->setTextInteractionFlags(Qt::TextSelectableByMouse);
    const auto showTime = [&](std::chrono::milliseconds t) {
        status->setText(QStringLiteral("\u25CF Recording to %1    %2%3").arg(target, formatTime(t), limit));
    };
    showTime(std::chrono::milliseconds(0));
    layout->addWidget(status);
    auto* stopButton = new QPushButton(QStringLiteral("Stop"));
    if (!parser.isSet(noPreview)) {
        recorder.opaqueUI()->createView(layout, parser.isSet(showRate));
        auto* bar = new QHBoxLayout;
        bar->addWidget(new QLabel(options.seconds > 0
                                      ? QStringLiteral("Stops by itself; Stop, Ctrl+C or closing the window end it sooner.")
                                      : QStringLiteral("Stop, Ctrl+C or closing the window end the recording.")),
                       1);
        bar->addWidget(stopButton);
        layout->addLayout(bar);
        window.resize(640, 420);
        window.show();
    }
    QObject::connect(recorder.screenReel(), &Recorder::ScreenReel::recorded, status, showTime);

    // Ctrl+C, a termination request, closing the console, the Stop button or
    // closing the window stop the recording, all the same way.
    const auto stop = [&] {
        stopButton->setEnabled(false);
        status->setText(QStringLiteral("Stopping, finishing %1").arg(target));
        recorder.stop();
    };
    const ConsoleStop consoleStop(&recorder, stop);
    QObject::connect(stopButton, &QPushButton::clicked, &recorder, stop);
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(qApp, &QGuiApplication::lastWindowClosed, &recorder, stop);
    QObject::connect(&recorder, &Recorder::finished, qApp, &QCoreApplication::quit);

    if (!recorder.start(options, err))
        return 1;
    QCoreApplication::exec();

    const QString size = toStandardOutput ? QStringLiteral("-") : QString::number(QFileInfo(options.output).size());
    err << "recorded " << (toStandardOutput ? target : options.output) << ": "
        << formatTime(recorder.recordedTime()) << ", " << size << " bytes" << Qt::endl;
    if (recorder.endedByItself()) {
        err << "the recording ended by itself (see the lines above)" << Qt::endl;
        return 3;
    }
    return 0;
}
