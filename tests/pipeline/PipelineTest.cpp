#include "pipeline/PartThread.h"
#include "pipeline/Pipeline.h"
#include "support/Fakes.h"

#include <QtTest>

#include <atomic>
#include <mutex>
#include <utility>

using namespace orvane;
using namespace orvane::test;

namespace {

// What the parts are to do, and what they and the receiver did, in order.
struct Script
{
    QStringList refusing, giving;  // parts that refuse to start; that give up, all at once
    std::atomic<bool> go{false};   // when to give up
    std::atomic<int> arrived{0};
    int targetEndsMs = 0;          // how long the target takes to end once asked
    std::mutex mutex;              // not a QMutex: the thread sanitizer sees this one
    QStringList journal;
    void add(const QString& entry)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        journal << entry;
    }
};

// Any part of a pipeline, with a worker thread that looks at the interruption
// request once a pass; the video hands on a small image at each.
class Part : public PartThread, public Source, public NullTarget
{
public:
    Part(const QString& name, Script& script, Pipeline* p) : PartThread(name, nullptr), Source(p), NullTarget(p), name(name), script(script) {}
    bool start() override
    {
        script.add(name + ".start");
        if (!script.refusing.contains(name))
            QThread::start();
        return !script.refusing.contains(name);
    }
    void stop() override
    {
        script.add(name + ".stop");
        stopAndWait();
    }
private:
    void run() override
    {
        for (bool gives = script.giving.contains(name); !isInterruptionRequested(); msleep(2)) {
            if (gives && script.go) {
                gives = false;
                for (++script.arrived; script.arrived < script.giving.size();)
                    yieldCurrentThread();
                script.add(name + ".abort");
                name == "target" ? Target::abort() : Source::abort();
            }
            if (name == "video")
                pushImage(QImage(8, 6, QImage::Format_RGB32), noCaptureTime);
        }
        msleep(name == "target" ? script.targetEndsMs : 0);
    }
    const QString name;
    Script& script;
};

const QString allStop = "video.stop audio.stop target.stop stopped";

} // namespace

class PipelineTest : public QObject
{
    Q_OBJECT

private slots:
    void recording_data()
    {
        QTest::addColumn<QString>("refuses");
        QTest::addColumn<QStringList>("giving");  // give up together once they run; "host": stops meanwhile
        QTest::addColumn<QString>("journal");     // empty where the order is open
        const QString run = "started target.start video.start audio.start ";
        const QString twice = allStop + ' ' + allStop;  // the stop's, then the destructor's
        QTest::newRow("host stops") << "" << QStringList() << run + twice;
        QTest::newRow("target refuses: no source started") << "target" << QStringList() << "started target.start " + twice;
        QTest::newRow("video refuses: no audio started") << "video" << QStringList() << "started target.start video.start " + twice;
        QTest::newRow("audio refuses") << "audio" << QStringList() << run + twice;
        for (const char* who : {"video", "audio", "target"})
            QTest::addRow("%s gives up", who) << "" << QStringList{who} << run + who + ".abort " + twice;
        QTest::newRow("host stop meets an abort") << "" << QStringList{"video", "host"} << "";
        QTest::newRow("all three at once") << "" << QStringList{"video", "audio", "target"} << "";
    }
    // Start, refusal, stop and abort, alone and at once: every thread ends,
    // none waits for another or for itself (a second abort returns at once),
    // and the owner hears Started before anything runs and Stopped on its own
    // thread, where it may delete the pipeline.
    void recording()
    {
        QFETCH(QString, refuses);
        QFETCH(QStringList, giving);
        QFETCH(QString, journal);
        LogCapture log;  // Qt's complaint of a thread waiting for itself, among others
        Script script;
        const bool hostStops = giving.removeAll("host");
        script.refusing << refuses;
        script.giving = giving;
        script.targetEndsMs = hostStops ? 300 : 0;  // the target takes its time to end
        // A receiver on the GUI thread journals the signals and deletes the
        // pipeline when it stops, as the plug-in does.
        QObject receiver;
        auto* pipeline = new Pipeline(nullptr, nullptr);
        const QPointer<Pipeline> watch(pipeline);
        const auto deleted = qScopeGuard([&] { delete std::exchange(pipeline, nullptr); });
        pipeline->audio = std::make_unique<Part>("audio", script, pipeline);
        pipeline->video = std::make_unique<Part>("video", script, pipeline);
        pipeline->target = std::make_unique<Part>("target", script, pipeline);
        connect(pipeline, &Pipeline::startedChanged, &receiver, [&] { script.add("started"); });
        connect(pipeline, &Pipeline::stopedChanged, &receiver, [&] {
            script.add(QThread::currentThread() == receiver.thread() ? "stopped" : "stopped off the GUI thread");
            delete std::exchange(pipeline, nullptr);
        });
        QCOMPARE(pipeline->start(), refuses.isEmpty());
        script.go = true;
        if (hostStops)
            QTRY_VERIFY_WITH_TIMEOUT(script.arrived > 0, 20000);
        if (watch && (giving.isEmpty() || hostStops))
            pipeline->stop();
        // Deleted by the receiver once all has ended; a deadlock leaves it (and
        // the test hanging in its destructor).
        QTRY_VERIFY_WITH_TIMEOUT(watch.isNull(), 20000);
        QCoreApplication::sendPostedEvents();
        // An abort reaches the GUI thread queued, one for all that gave up.
        QCOMPARE(script.journal.count("stopped"), hostStops ? 3 : 2);
        if (!journal.isEmpty())
            QCOMPARE(script.journal.join(' '), journal);  // all threads ended
        QVERIFY2(log.warnings().isEmpty(), qPrintable(log.warnings().join('\n')));
    }
};

QTEST_MAIN(PipelineTest)
#include "PipelineTest.moc"
