// A full-screen moving scene: coloured bars that slide, a bouncing box and a
// running clock, so that a recording has something that changes every frame.
// With --flash, a white patch flashes for 120 ms about once a second
// and, at the same instant, a short beep goes to the default sound output.

#include <QApplication>
#include <QAudioFormat>
#include <QAudioOutput>
#include <QBuffer>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QPainter>
#include <QScreen>
#include <QTimer>
#include <QWidget>
#include <QtEndian>

#include <cmath>
#include <memory>
#include <vector>

namespace {

constexpr int flashMs = 120;
// A little over a second, so that the flashes meet a grabber's 40 ms frames
// at every phase in turn: over a few flashes a frame's lateness averages
// out, the same for every recorder.
constexpr int periodMs = 1010;

class Scene : public QWidget
{
public:
    explicit Scene(bool flash)
        : flash(flash)
    {
        setWindowTitle(QStringLiteral("ScreenReel scene"));
        setAttribute(Qt::WA_OpaquePaintEvent);
        clock.start();
        auto* timer = new QTimer(this);
        timer->setTimerType(Qt::PreciseTimer);
        connect(timer, &QTimer::timeout, this, [this] { tick(); });
        timer->start(10);
        if (flash)
            prepareBeep();
    }

private:
    void tick()
    {
        const qint64 now = clock.elapsed();
        const qint64 period = now / periodMs;
        if (flash && period != lastPeriod) {
            lastPeriod = period;
            beep();
        }
        update();
    }

    void prepareBeep()
    {
        QAudioFormat format;
        format.setSampleRate(48000);
        format.setChannelCount(2);
        format.setSampleSize(16);
        format.setCodec(QStringLiteral("audio/pcm"));
        format.setByteOrder(QAudioFormat::LittleEndian);
        format.setSampleType(QAudioFormat::SignedInt);
        // 120 ms of 1 kHz.
        const int frames = 48000 * flashMs / 1000;
        tone.resize(frames * 4);
        auto* samples = reinterpret_cast<qint16*>(tone.data());
        const double pi = std::acos(-1.0);  // M_PI is POSIX's, not standard C++
        for (int i = 0; i < frames; ++i) {
            const qint16 v = qint16(20000 * std::sin(2 * pi * 1000.0 * i / 48000.0));
            samples[2 * i] = qToLittleEndian(v);
            samples[2 * i + 1] = qToLittleEndian(v);
        }
        output = std::make_unique<QAudioOutput>(format);
        output->setBufferSize(48000 * 4 / 50);  // 20 ms: keep the beep close to the flash
    }

    void beep()
    {
        if (!output)
            return;
        output->stop();
        buffer = std::make_unique<QBuffer>(&tone);
        buffer->open(QIODevice::ReadOnly);
        output->start(buffer.get());
    }

    void paintEvent(QPaintEvent*) override
    {
        const qint64 now = clock.elapsed();
        QPainter painter(this);
        const int w = width();
        const int h = height();
        const int bars = 8;
        const int shift = int(now / 8) % w;
        for (int i = 0; i < bars; ++i) {
            const QColor colour = QColor::fromHsv(i * 360 / bars, 200, 220);
            const int x = (i * w / bars + shift) % w;
            painter.fillRect(x, 0, w / bars, h, colour);
            if (x + w / bars > w)
                painter.fillRect(x - w, 0, w / bars, h, colour);
        }
        const double t = now / 1000.0;
        const int box = h / 5;
        const int bx = int((std::sin(t * 1.3) * 0.5 + 0.5) * (w - box));
        const int by = int((std::cos(t * 0.9) * 0.5 + 0.5) * (h - box));
        painter.fillRect(bx, by, box, box, Qt::black);
        painter.setPen(Qt::white);
        QFont font;
        font.setPixelSize(box / 3);
        painter.setFont(font);
        painter.drawText(QRect(bx, by, box, box), Qt::AlignCenter, QString::number(t, 'f', 2));
        if (flash && now % periodMs < flashMs)
            painter.fillRect(0, 0, w / 4, h / 4, Qt::white);
    }

    const bool flash;
    QElapsedTimer clock;
    qint64 lastPeriod = -1;
    QByteArray tone;
    std::unique_ptr<QAudioOutput> output;
    std::unique_ptr<QBuffer> buffer;
};

// A still card on one screen: its left and right halves in the screen's two
// colours, so that a recording's colours tell which screen and which part of
// it were recorded.
class TestCard : public QWidget
{
public:
    TestCard(QScreen* screen, QColor left, QColor right)
        : left(left)
        , right(right)
    {
        setWindowTitle(QStringLiteral("ScreenReel test card"));
        setWindowFlags(Qt::FramelessWindowHint);
        setGeometry(screen->geometry());
    }

private:
    void paintEvent(QPaintEvent*) override
    {
        QPainter painter(this);
        painter.fillRect(0, 0, width() / 2, height(), left);
        painter.fillRect(width() / 2, 0, width() - width() / 2, height(), right);
    }

    const QColor left;
    const QColor right;
};

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A moving scene to record."));
    parser.addHelpOption();
    const QCommandLineOption flash(QStringLiteral("flash"),
                                   QStringLiteral("Flash a white patch and beep once a second."));
    const QCommandLineOption testCard(QStringLiteral("test-card"),
                                      QStringLiteral("Show still colours instead: screen 0 red and yellow, "
                                                     "screen 1 blue and green, left half and right."));
    parser.addOptions({flash, testCard});
    parser.process(app);

    if (parser.isSet(testCard)) {
        const QColor colours[][2] = {{Qt::red, Qt::yellow}, {Qt::blue, Qt::green}};
        std::vector<std::unique_ptr<TestCard>> cards;
        const QList<QScreen*> screens = QGuiApplication::screens();
        for (int i = 0; i < screens.size() && i < 2; ++i) {
            cards.push_back(std::make_unique<TestCard>(screens.at(i), colours[i][0], colours[i][1]));
            cards.back()->show();
        }
        return app.exec();
    }

    // Sized by hand: a bare X server has no window manager to make it full-screen.
    Scene scene(parser.isSet(flash));
    scene.setWindowFlags(Qt::FramelessWindowHint);
    scene.setGeometry(QGuiApplication::primaryScreen()->geometry());
    scene.show();
    return app.exec();
}
