// Runs the Muxer's loop for a long time against a producer that delivers
// images faster than the frame rate, and prints how many ticks a second the
// loop made: every tick encodes one frame, so the encoder's frame count over
// the elapsed time is the tick rate.
//
//   pacing-bench [--seconds S] [--size WxH]

#include "output/Muxer.h"
#include "pipeline/Pipeline.h"

#include <QBuffer>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QImage>
#include <QTextStream>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// A Source that never runs: the bench drives the Muxer directly.
class IdleSource : public orvane::Source
{
public:
    using Source::Source;
    bool start() override { return true; }
    void stop() override {}
};

// Discards the stream but counts it, so the device costs nothing.
class NullDevice : public QIODevice
{
public:
    qint64 written = 0;
    bool isSequential() const override { return true; }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char*, qint64 size) override
    {
        written += size;
        return size;
    }
};

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption seconds(QStringLiteral("seconds"), QStringLiteral("Run time."),
                                     QStringLiteral("S"), QStringLiteral("600"));
    const QCommandLineOption size(QStringLiteral("size"), QStringLiteral("Picture size."),
                                  QStringLiteral("WxH"), QStringLiteral("1280x720"));
    parser.addOptions({seconds, size});
    parser.process(app);
    const QStringList wh = parser.value(size).split(QLatin1Char('x'));
    const QSize pictureSize(wh.value(0).toInt(), wh.value(1).toInt());
    const int runSeconds = parser.value(seconds).toInt();

    NullDevice device;
    device.open(QIODevice::WriteOnly);
    orvane::Pipeline pipeline(nullptr, nullptr);
    pipeline.video = std::make_unique<IdleSource>(&pipeline);
    auto* muxer = new orvane::Muxer(pictureSize, std::nullopt, &device, &pipeline);
    pipeline.target.reset(muxer);

    // 30 images a second, each a little different, from a thread of its own.
    std::atomic<bool> running{true};
    std::thread producer([&] {
        QImage image(pictureSize, QImage::Format_RGB32);
        int n = 0;
        while (running) {
            image.fill(QColor::fromHsv(n++ % 360, 200, 200));
            muxer->writeVideo(image, orvane::noCaptureTime);
            std::this_thread::sleep_for(std::chrono::milliseconds(33));
        }
    });

    QTextStream out(stdout);
    if (!pipeline.start()) {
        out << "the Muxer did not start" << Qt::endl;
        running = false;
        producer.join();
        return 1;
    }
    using Clock = std::chrono::steady_clock;
    // The first image takes a moment; count from the first encoded frame on.
    while (muxer->recordedTime().count() == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto begin = Clock::now();
    const qint64 firstMs = muxer->recordedTime().count();
    for (int s = 1; s <= runSeconds; ++s) {
        std::this_thread::sleep_until(begin + std::chrono::seconds(s));
        if (s % 60 == 0 || s == runSeconds) {
            const double elapsed = std::chrono::duration<double>(Clock::now() - begin).count();
            const double ticks = (muxer->recordedTime().count() - firstMs) / 40.0;
            out << "after " << s << " s: " << ticks << " ticks, " << QString::number(ticks / elapsed, 'f', 4)
                << " ticks/s" << Qt::endl;
        }
    }
    pipeline.stop();
    running = false;
    producer.join();
    return 0;
}
