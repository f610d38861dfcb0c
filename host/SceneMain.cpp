// A full-screen moving scene: coloured bars that slide, a bouncing box and a
// running clock, so that a recording has something that changes every frame.
// With --flash, a white patch flashes for 120 ms about once a second
// and, at the same instant, a short beep goes to the default sound output.

#include <QApplication>
#include <QAudioFormat>
#include <QAudioOutput>
#include <QCommandLineParser>
#include <QElapsedTimer>
#include <QIODevice>
#include <QPainter>
#include <QScreen>
#include <QThread>
#include <QTimer>
#include <QWidget>
#include <QtEndian>
#include <QtGlobal>

#include <cmath>
#include <memory>
#include <vector>

namespace {

constexpr int flashMs = 120;
// A little over a second, so that the flashes meet a grabber's 40 ms frames
// at every phase in turn: over a few flashes a frame's lateness averages
// out, the same for every recorder.
constexpr int periodMs = 1010;

constexpr int sampleRate = 48000;
constexpr qint64 periodFrames = qint64(sampleRate) * periodMs / 1000;
constexpr qint64 flashFrames = qint64(sampleRate) * flashMs / 1000;
constexpr int frameBytes = 4;  // 16-bit stereo
// How far the sound may fall behind the scene's clock before it counts as
// stalled.
constexpr qint64 stallFrames = sampleRate / 10;
const double pi = std::acos(-1.0);  // M_PI is POSIX's, not standard C++

// The beeps as one endless stream, silence between them. A stream started
// for each beep reaches the sink late by its own start-up, different every
// time, and a sound server may cut its first part: one stream, started
// once, keeps every beep whole and its place exact. Frame N of the stream is
// meant to be heard N / sampleRate seconds into the scene's clock, when the
// patch flashes for the beeps that fall there; so beep k fills frames
// k * periodFrames onwards.
class BeepStream : public QIODevice
{
public:
    explicit BeepStream(const QElapsedTimer& clock)
        : clock(clock)
    {
    }

    // What the output holds but has not played yet, to place the first frame
    // and to follow the output when it stalls.
    void setOutput(const QAudioOutput* audio) { output = audio; }

    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override { return periodFrames * frameBytes + QIODevice::bytesAvailable(); }

protected:
    qint64 readData(char* data, qint64 maxSize) override
    {
        const qint64 frames = maxSize / frameBytes;
        if (frames <= 0)
            return 0;
        // The first frame written now is heard once what the output holds
        // has played. When the count fell well behind the clock, the output
        // stood still meanwhile (PulseAudio takes a second or two to start a
        // new stream's sink, a sink can be suspended, a busy scene can fail
        // to feed it): the count moves on to where the clock is, so later
        // beeps still meet their flashes. Not for less: a server can hold
        // more than the output says (PipeWire 45 ms or more), and a count
        // only that far behind is still on time there.
        const qint64 held = output ? qMax(0, output->bufferSize() - output->bytesFree()) / frameBytes : 0;
        const qint64 now = clock.nsecsElapsed() * sampleRate / 1000000000;
        const qint64 heardAt = now + held;
        if (next < 0 || next < now - stallFrames) {
            if (next >= 0)
                qWarning("scene: the sound output stalled; the beeps move %.0f ms on with it",
                         double(heardAt - next) * 1000.0 / sampleRate);
            next = heardAt;
        }
        auto* samples = reinterpret_cast<qint16*>(data);
        for (qint64 i = 0; i < frames; ++i, ++next) {
            const qint64 inBeep = next % periodFrames;
            // 1 kHz, a whole number of frames a cycle at 48 kHz.
            const qint16 v = inBeep < flashFrames
                                 ? qint16(20000 * std::sin(2 * pi * 1000.0 * double(inBeep) / sampleRate))
                                 : qint16(0);
            samples[2 * i] = qToLittleEndian(v);
            samples[2 * i + 1] = qToLittleEndian(v);
        }
        return frames * frameBytes;
    }

    qint64 writeData(const char*, qint64) override { return -1; }

private:
    const QElapsedTimer& clock;
    const QAudioOutput* output = nullptr;
    qint64 next = -1;  // the next frame to write, on the scene's clock
};

// Plays the beeps on a thread of its own: the scene's painting, a full
// screen every 10 ms, would otherwise delay feeding the sound on a busy
// machine until the output runs dry.
class BeepPlayer : public QObject
{
public:
    explicit BeepPlayer(const QElapsedTimer& clock)
        : clock(clock)
    {
    }

    // On the sound's thread, where the output and the stream then live.
    void start()
    {
        QAudioFormat format;
        format.setSampleRate(sampleRate);
        format.setChannelCount(2);
        format.setSampleSize(16);
        format.setCodec(QStringLiteral("audio/pcm"));
        format.setByteOrder(QAudioFormat::LittleEndian);
        format.setSampleType(QAudioFormat::SignedInt);
        output = std::make_unique<QAudioOutput>(format);
        // Where a beep is heard follows from its frame's number, not from
        // how much is buffered: room for 200 ms keeps the output from
        // running dry.
        output->setBufferSize(sampleRate * frameBytes / 5);
        beeps = std::make_unique<BeepStream>(clock);
        beeps->setOutput(output.get());
        // Unbuffered: what the output holds is then all that waits.
        beeps->open(QIODevice::ReadOnly | QIODevice::Unbuffered);
        output->start(beeps.get());
    }

private:
    const QElapsedTimer& clock;
    // The stream outlives the output that reads it.
    std::unique_ptr<BeepStream> beeps;
    std::unique_ptr<QAudioOutput> output;
};

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
        if (flash) {
            auto* player = new BeepPlayer(clock);
            player->moveToThread(&sound);
            connect(&sound, &QThread::started, player, [player] { player->start(); });
            connect(&sound, &QThread::finished, player, &QObject::deleteLater);
            sound.start();
        }
    }

    ~Scene() override
    {
        sound.quit();
        sound.wait();
    }

private:
    void tick() { update(); }

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
    QThread sound;
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
