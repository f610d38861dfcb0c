#include "interface/ScreenReel.h"
#include "pipeline/Pipeline.h"
#include "preview/BufferView.h"

#include <QImage>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>

using namespace orvane;
using std::chrono::milliseconds;

namespace {

// What the doubles and the receivers did, in order. A std::mutex, not a
// QMutex, so that the thread sanitizer sees the ordering it gives.
class Journal
{
public:
    void add(const QString& entry)
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries << entry;
    }
    QString text() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return entries.join(QLatin1Char(' '));
    }
    bool contains(const QString& entry) const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return entries.contains(entry);
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries.clear();
    }

private:
    mutable std::mutex mutex;
    QStringList entries;
};

// How a double's thread behaves.
struct Behaviour
{
    bool accepts = true;
    // Calls abort once `go` is set and, when `arrivals` is given, all
    // `expected` threads that give up have come that far.
    bool aborts = false;
    const std::atomic<bool>* go = nullptr;
    std::atomic<int>* arrivals = nullptr;
    int expected = 1;
    // Time its thread takes to end once asked to.
    int lingerMs = 0;
    // Hands on a small image every few milliseconds (video only).
    bool pushes = false;
};

// The thread part the doubles share: it runs like a real worker, looking at
// the interruption request once per pass.
class FakeThread : public QThread
{
public:
    FakeThread(const QString& name, const Behaviour& behaviour, Journal& journal, QObject* parent)
        : QThread(parent)
        , name(name)
        , behaviour(behaviour)
        , journal(journal)
    {
    }

protected:
    virtual void giveUp() = 0;
    virtual void produce() {}

    bool startThread()
    {
        journal.add(name + QStringLiteral(".start"));
        if (!behaviour.accepts)
            return false;
        QThread::start();
        return true;
    }
    void stopThisThread()
    {
        journal.add(name + QStringLiteral(".stop"));
        stopThread(*this);
    }

    const QString name;
    const Behaviour behaviour;
    Journal& journal;

private:
    void run() override
    {
        bool gaveUp = !behaviour.aborts;
        while (!isInterruptionRequested()) {
            if (!gaveUp && (!behaviour.go || behaviour.go->load())) {
                gaveUp = true;
                // All that give up together call abort right after the last
                // one has arrived, without looking at interruption between.
                if (behaviour.arrivals) {
                    behaviour.arrivals->fetch_add(1);
                    while (behaviour.arrivals->load() < behaviour.expected)
                        yieldCurrentThread();
                }
                journal.add(name + QStringLiteral(".abort"));
                giveUp();
                continue;
            }
            if (behaviour.pushes)
                produce();
            msleep(2);
        }
        if (behaviour.lingerMs)
            msleep(behaviour.lingerMs);
    }
};

class FakeSource : public FakeThread, public Source
{
public:
    FakeSource(const QString& name, const Behaviour& behaviour, Journal& journal, Pipeline* pipeline)
        : FakeThread(name, behaviour, journal, pipeline)
        , Source(pipeline)
    {
    }
    ~FakeSource() override
    {
        requestInterruption();
        wait();
    }

    bool start() override { return startThread(); }
    void stop() override { stopThisThread(); }

private:
    void giveUp() override { abort(); }
    void produce() override
    {
        QImage image(8, 6, QImage::Format_BGR888);
        image.fill(Qt::red);
        pushImage(image);
    }
};

class FakeTarget : public FakeThread, public Target
{
public:
    FakeTarget(const Behaviour& behaviour, Journal& journal, Pipeline* pipeline)
        : FakeThread(QStringLiteral("target"), behaviour, journal, pipeline)
        , Target(pipeline)
    {
    }
    ~FakeTarget() override
    {
        requestInterruption();
        wait();
    }

    bool start() override { return startThread(); }
    void stop() override { stopThisThread(); }
    milliseconds recordedTime() override { return milliseconds(time.load()); }
    void writeVideo(const QImage&) override { images.fetch_add(1); }
    void writeAudio(const QByteArray&, qint64) override {}

    std::atomic<qint64> time{1234};
    std::atomic<int> images{0};

private:
    void giveUp() override { abort(); }
};

// One pipeline with its doubles, and a receiver on the GUI thread that
// journals the signals and notes the thread they arrive on.
struct Recording
{
    Recording(const Behaviour& target, const Behaviour& video, const std::optional<Behaviour>& audio,
              BufferView* view = nullptr)
        : pipeline(std::make_unique<Pipeline>(view, nullptr))
    {
        Pipeline* p = pipeline.get();
        if (audio) {
            audioDouble = new FakeSource(QStringLiteral("audio"), *audio, journal, p);
            p->audio.reset(audioDouble);
        }
        videoDouble = new FakeSource(QStringLiteral("video"), video, journal, p);
        p->video.reset(videoDouble);
        targetDouble = new FakeTarget(target, journal, p);
        p->target.reset(targetDouble);
        QObject::connect(p, &Pipeline::startedChanged, &receiver,
                         [this] { journal.add(QStringLiteral("started")); });
        QObject::connect(p, &Pipeline::stopedChanged, &receiver, [this] {
            journal.add(QStringLiteral("stopped"));
            ++stops;
            if (QThread::currentThread() != receiver.thread())
                ++stopsOffThread;
            if (deleteOnStop)
                delete pipeline.release();
        });
    }

    // Bounded: a deadlocked recording gives false instead of hanging the test.
    bool endsWithin(int ms)
    {
        QDeadlineTimer deadline(ms);
        while (!deadline.hasExpired()) {
            if (!anyRunning())
                return true;
            QTest::qWait(10);
        }
        return false;
    }
    bool anyRunning() const
    {
        return videoDouble->isRunning() || targetDouble->isRunning()
               || (audioDouble && audioDouble->isRunning());
    }

    Journal journal;
    QObject receiver;
    std::unique_ptr<Pipeline> pipeline;
    FakeSource* audioDouble = nullptr;
    FakeSource* videoDouble = nullptr;
    FakeTarget* targetDouble = nullptr;
    int stops = 0;
    int stopsOffThread = 0;
    bool deleteOnStop = false;
};

Behaviour refusing()
{
    Behaviour b;
    b.accepts = false;
    return b;
}

// Counts Qt's complaint about a thread waiting for itself.
std::atomic<int> selfWaits{0};
QtMessageHandler previousHandler = nullptr;
void countSelfWaits(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    if (text.contains(QLatin1String("wait on itself")))
        selfWaits.fetch_add(1);
    previousHandler(type, context, text);
}

} // namespace

class PipelineTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void startAndStop_data();
    void startAndStop();
    void workerGivesUp_data();
    void workerGivesUp();
    void stopMeetsAbort();
    void simultaneousAborts_data();
    void simultaneousAborts();
    void receiverDeletesPipeline_data();
    void receiverDeletesPipeline();
    void reportsRecordedTime();
    void previewDestroyedWhileRecording();
};

void PipelineTest::initTestCase()
{
    qRegisterMetaType<milliseconds>();
    previousHandler = qInstallMessageHandler(countSelfWaits);
}

void PipelineTest::startAndStop_data()
{
    QTest::addColumn<bool>("targetAccepts");
    QTest::addColumn<bool>("videoAccepts");
    QTest::addColumn<int>("audio");  // 0 none, 1 accepts, 2 refuses
    QTest::addColumn<bool>("result");
    QTest::addColumn<QString>("afterStart");
    QTest::addColumn<QString>("afterStop");

    QTest::newRow("video alone records") << true << true << 0 << true
        << "started target.start video.start" << "video.stop target.stop stopped";
    QTest::newRow("with audio records") << true << true << 1 << true
        << "started target.start video.start audio.start"
        << "video.stop audio.stop target.stop stopped";
    QTest::newRow("target refuses: no source started") << false << true << 1 << false
        << "started target.start video.stop audio.stop target.stop stopped" << "";
    QTest::newRow("video refuses: audio not started") << true << false << 1 << false
        << "started target.start video.start video.stop audio.stop target.stop stopped" << "";
    QTest::newRow("video refuses without audio") << true << false << 0 << false
        << "started target.start video.start video.stop target.stop stopped" << "";
    QTest::newRow("audio refuses: running parts stopped") << true << true << 2 << false
        << "started target.start video.start audio.start video.stop audio.stop target.stop stopped"
        << "";
}

void PipelineTest::startAndStop()
{
    QFETCH(bool, targetAccepts);
    QFETCH(bool, videoAccepts);
    QFETCH(int, audio);
    QFETCH(bool, result);
    QFETCH(QString, afterStart);
    QFETCH(QString, afterStop);

    std::optional<Behaviour> audioBehaviour;
    if (audio)
        audioBehaviour = audio == 1 ? Behaviour() : refusing();
    Recording r(targetAccepts ? Behaviour() : refusing(), videoAccepts ? Behaviour() : refusing(),
                audioBehaviour);

    QCOMPARE(r.pipeline->start(), result);
    QCOMPARE(r.journal.text(), afterStart);
    // A refusal has joined every thread that had started before start returns.
    QCOMPARE(r.anyRunning(), result);

    if (result) {
        r.journal.clear();
        r.pipeline->stop();
        QCOMPARE(r.journal.text(), afterStop);
        QVERIFY(!r.anyRunning());
    }

    // The destructor stops every part once more and reports it.
    r.journal.clear();
    r.pipeline.reset();
    QCOMPARE(r.journal.text(), QString(audio ? "video.stop audio.stop target.stop stopped"
                                             : "video.stop target.stop stopped"));
    QCOMPARE(r.stopsOffThread, 0);
}

void PipelineTest::workerGivesUp_data()
{
    QTest::addColumn<QString>("who");
    QTest::newRow("video gives up") << "video";
    QTest::newRow("audio gives up") << "audio";
    QTest::newRow("target gives up") << "target";
}

void PipelineTest::workerGivesUp()
{
    QFETCH(QString, who);

    std::atomic<bool> go{false};
    Behaviour aborting;
    aborting.aborts = true;
    aborting.go = &go;
    Recording r(who == "target" ? aborting : Behaviour(), who == "video" ? aborting : Behaviour(),
                who == "audio" ? aborting : Behaviour());
    QVERIFY(r.pipeline->start());
    r.journal.clear();
    const int selfWaitsBefore = selfWaits.load();

    go = true;
    // Reaches the receiver queued, on the GUI thread.
    QTRY_COMPARE_WITH_TIMEOUT(r.stops, 1, 20000);
    QCOMPARE(r.stopsOffThread, 0);
    QVERIFY(r.endsWithin(20000));
    // The whole stop sequence ran on the worker's thread, its own stop
    // included, which did not wait for itself.
    QCOMPARE(r.journal.text(), who + ".abort video.stop audio.stop target.stop stopped");
    QCOMPARE(selfWaits.load(), selfWaitsBefore);

    // A host stop after the abort: every part returns at once, and the
    // signal comes again.
    r.journal.clear();
    r.pipeline->stop();
    QCOMPARE(r.journal.text(), QString("video.stop audio.stop target.stop stopped"));
    QCOMPARE(r.stops, 2);
}

void PipelineTest::stopMeetsAbort()
{
    // The video gives up while the target takes its time to end, and the host
    // stops in the middle of it: no deadlock, one signal for each.
    std::atomic<bool> go{false};
    Behaviour aborting;
    aborting.aborts = true;
    aborting.go = &go;
    Behaviour slowTarget;
    slowTarget.lingerMs = 300;
    Recording r(slowTarget, aborting, Behaviour());
    QVERIFY(r.pipeline->start());

    go = true;
    QTRY_VERIFY_WITH_TIMEOUT(r.journal.contains("video.abort"), 20000);
    r.pipeline->stop();
    QVERIFY(!r.anyRunning());
    QTRY_COMPARE_WITH_TIMEOUT(r.stops, 2, 20000);
    QCOMPARE(r.stopsOffThread, 0);
}

void PipelineTest::simultaneousAborts_data()
{
    QTest::addColumn<QStringList>("aborting");
    QTest::newRow("video and audio") << QStringList{"video", "audio"};
    QTest::newRow("video and target") << QStringList{"video", "target"};
    QTest::newRow("all three") << QStringList{"video", "audio", "target"};
}

void PipelineTest::simultaneousAborts()
{
    QFETCH(QStringList, aborting);

    std::atomic<bool> go{false};
    std::atomic<int> arrivals{0};
    Behaviour gather;
    gather.aborts = true;
    gather.go = &go;
    gather.arrivals = &arrivals;
    gather.expected = aborting.size();
    const auto behaviour = [&](const char* who) {
        return aborting.contains(who) ? gather : Behaviour();
    };
    auto r = std::make_unique<Recording>(behaviour("target"), behaviour("video"), behaviour("audio"));
    QVERIFY(r->pipeline->start());

    go = true;
    if (!r->endsWithin(20000)) {
        // Deadlocked threads cannot be joined: leave them rather than hang.
        (void)r.release();
        QFAIL("the workers that gave up together are still running");
    }
    QCoreApplication::sendPostedEvents();
    // One stop sequence ran; the later callers returned at once.
    QCOMPARE(r->stops, 1);
    r->pipeline.reset();
    QCOMPARE(r->stops, 2);
}

void PipelineTest::receiverDeletesPipeline_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("host stops") << "stop";
    QTest::newRow("target refuses the start") << "target refuses";
    QTest::newRow("audio refuses the start") << "audio refuses";
    QTest::newRow("a worker gives up") << "abort";
}

void PipelineTest::receiverDeletesPipeline()
{
    QFETCH(QString, path);

    std::atomic<bool> go{false};
    Behaviour aborting;
    aborting.aborts = true;
    aborting.go = &go;
    Recording r(path == "target refuses" ? refusing() : Behaviour(),
                path == "abort" ? aborting : Behaviour(),
                path == "audio refuses" ? refusing() : Behaviour());
    QPointer<Pipeline> watch(r.pipeline.get());
    r.deleteOnStop = true;

    const bool started = r.pipeline->start();
    QCOMPARE(started, path == "stop" || path == "abort");
    if (path == "stop")
        r.pipeline->stop();
    if (path == "abort") {
        go = true;
        QTRY_VERIFY_WITH_TIMEOUT(watch.isNull(), 20000);
    }
    QVERIFY(watch.isNull());
    // The handler's own deletion and the destructor's signal, which finds
    // nothing left to delete.
    QCOMPARE(r.stops, 2);
}

void PipelineTest::reportsRecordedTime()
{
    Recording r(Behaviour(), Behaviour(), std::nullopt);
    QCOMPARE(r.pipeline->recordedTime(), milliseconds(1234));
    QSignalSpy recorded(r.pipeline.get(), &Pipeline::recorded);
    QVERIFY(r.pipeline->start());

    QVERIFY(recorded.wait(10000));
    QCOMPARE(recorded.first().first().value<milliseconds>(), milliseconds(1234));
    // Every tick emits what the target says now.
    r.targetDouble->time = 5678;
    QCOMPARE(r.pipeline->recordedTime(), milliseconds(5678));
    QTRY_VERIFY_WITH_TIMEOUT(recorded.last().first().value<milliseconds>() == milliseconds(5678),
                             10000);
    r.pipeline->stop();
}

void PipelineTest::previewDestroyedWhileRecording()
{
    auto view = std::make_unique<BufferView>(nullptr, true);
    Behaviour pushing;
    pushing.pushes = true;
    Recording r(Behaviour(), pushing, std::nullopt, view.get());
    // Emitted on the video thread, counted here on the GUI thread.
    int handedOver = 0;
    connect(view.get(), &BufferView::imageChanged, &r.receiver, [&] { ++handedOver; });
    QVERIFY(r.pipeline->start());

    QTRY_VERIFY_WITH_TIMEOUT(handedOver > 0, 10000);
    // The widget goes while the video thread keeps handing over.
    view.reset();
    const int before = r.targetDouble->images.load();
    QTRY_VERIFY_WITH_TIMEOUT(r.targetDouble->images.load() > before + 20, 20000);
    QVERIFY(r.videoDouble->isRunning());
    r.pipeline->stop();
    QVERIFY(!r.anyRunning());
}

QTEST_MAIN(PipelineTest)

#include "PipelineTest.moc"
