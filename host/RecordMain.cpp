// screenreel-record: records a screen, or a region of it, with or without
// sound, to an MP4 file or to standard output, through the ScreenReel plug-in.

#include "Recorder.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QLabel>
#include <QRegularExpression>
#include <QScreen>
#include <QSocketNotifier>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindow>

#include <csignal>
#include <memory>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

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

} // namespace

int main(int argc, char** argv)
{
    // The window holds plain widgets: no OpenGL stack (on Mesa 50 MiB of
    // software renderer) is loaded for it.
    QApplication::setAttribute(Qt::AA_ForceRasterWidgets);
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("screenreel-record"));
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
                                   QStringLiteral("Record sound from NAME, the default input, or none."),
                                   QStringLiteral("NAME|default|none"), QStringLiteral("default"));
    const QCommandLineOption seconds(QStringLiteral("seconds"),
                                     QStringLiteral("Stop after S seconds (default: on Ctrl+C or closing the window)."),
                                     QStringLiteral("S"));
    const QCommandLineOption showRate(QStringLiteral("show-rate"), QStringLiteral("Show the preview's frame rate."));
    const QCommandLineOption noPreview(QStringLiteral("no-preview"), QStringLiteral("Show no preview."));
    // Not "--plugin": QGuiApplication takes that for its own and removes it.
    const QCommandLineOption plugin(QStringLiteral("plugin-file"), QStringLiteral("Load the plug-in from PATH."),
                                    QStringLiteral("PATH"));
    parser.addOptions({list, output, screen, region, audio, seconds, showRate, noPreview, plugin});
    parser.process(app);

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
    if (parser.isSet(region) && !parseRegion(parser.value(region), &options.region)) {
        err << "--region takes WxH+X+Y" << Qt::endl;
        return 2;
    }
    options.audio = parser.value(audio);
    if (parser.isSet(seconds)) {
        options.seconds = parser.value(seconds).toDouble(&ok);
        if (!ok || options.seconds <= 0) {
            err << "--seconds takes a positive number" << Qt::endl;
            return 2;
        }
    }

    QWidget window;
    window.setWindowTitle(QStringLiteral("ScreenReel"));
    auto* layout = new QVBoxLayout(&window);
    auto* time = new QLabel(formatTime(std::chrono::milliseconds(0)));
    layout->addWidget(time);
    if (!parser.isSet(noPreview)) {
        recorder.opaqueUI()->createView(layout, parser.isSet(showRate));
        window.resize(640, 400);
        window.show();
    }
    QObject::connect(recorder.screenReel(), &Recorder::ScreenReel::recorded, time,
                     [time](std::chrono::milliseconds t) { time->setText(formatTime(t)); });

    // Ctrl+C, a termination request, or closing the window stop the recording.
    if (::pipe(signalPipe) == 0) {
        std::signal(SIGINT, onSignal);
        std::signal(SIGTERM, onSignal);
    }
    QSocketNotifier notifier(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&notifier, &QSocketNotifier::activated, &recorder, [&] {
        char byte;
        [[maybe_unused]] const ssize_t n = ::read(signalPipe[0], &byte, 1);
        recorder.stop();
    });
    QApplication::setQuitOnLastWindowClosed(false);
    QObject::connect(&app, &QGuiApplication::lastWindowClosed, &recorder, [&] { recorder.stop(); });
    QObject::connect(&recorder, &Recorder::finished, &app, &QCoreApplication::quit);

    if (!recorder.start(options, err))
        return 1;
    if (options.seconds > 0)
        // Precise: a coarse timer may fire up to 5 % early, 19 s into 20.
        QTimer::singleShot(int(options.seconds * 1000), Qt::PreciseTimer, &recorder, [&] { recorder.stop(); });

    std::chrono::milliseconds last(0);
    QObject::connect(recorder.screenReel(), &Recorder::ScreenReel::recorded, &recorder,
                     [&last](std::chrono::milliseconds t) { last = t; });
    app.exec();

    const QString size = options.output == QLatin1String("-")
                             ? QStringLiteral("-")
                             : QString::number(QFileInfo(options.output).size());
    err << "recorded " << (options.output == QLatin1String("-") ? QStringLiteral("standard output") : options.output)
        << ": " << formatTime(last) << ", " << size << " bytes" << Qt::endl;
    if (recorder.endedByItself()) {
        err << "the recording ended by itself (see the lines above)" << Qt::endl;
        return 3;
    }
    return 0;
}
