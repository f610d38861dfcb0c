// The Wayland input's own rules: which of the portal's streams is the
// screen asked for, and how its stamps become capture times.
#include "capture/PortalVideoWorker.h"
#include "capture/ScreenCastPortal.h"

#include <QtTest>

using namespace orvane;

Q_DECLARE_METATYPE(std::vector<orvane::SharedStream>)

class ScreenCastTest : public QObject
{
    Q_OBJECT

private slots:
    void streamOfScreen_data()
    {
        QTest::addColumn<std::vector<SharedStream>>("streams");
        QTest::addColumn<int>("index");
        const QPoint origin(0, 0);
        const QSize full(1920, 1080);
        QTest::newRow("the screen") << std::vector<SharedStream>{{40, origin, full}} << 0;
        QTest::newRow("the one of two at the screen's place")
                << std::vector<SharedStream>{{40, QPoint(1920, 0), full}, {41, origin, full}} << 1;
        QTest::newRow("another monitor of the same size")
                << std::vector<SharedStream>{{40, QPoint(1920, 0), full}} << -1;
        QTest::newRow("the screen's place, another size")
                << std::vector<SharedStream>{{40, origin, QSize(1280, 720)}} << -1;
        QTest::newRow("no place said, the size matches") << std::vector<SharedStream>{{40, {}, full}} << 0;
        QTest::newRow("no size said") << std::vector<SharedStream>{{40, origin, {}}} << -1;
        QTest::newRow("nothing shared") << std::vector<SharedStream>{} << -1;
    }

    // The screen asked for: 1920x1080 at 0,0.
    void streamOfScreen()
    {
        QFETCH(std::vector<SharedStream>, streams);
        QFETCH(int, index);
        QCOMPARE(streamForScreen(streams, QRectF(0, 0, 1920, 1080)), index);
    }

    void captureTimeOfStamp_data()
    {
        QTest::addColumn<qint64>("ptsNs");
        QTest::addColumn<qint64>("captured");
        // Now: 1000 s on the monotonic clock, 1.7e15 us on the system clock.
        // Stamps of real frames are PortalTest's.
        QTest::newRow("under a microsecond old") << qint64(999'999'999'001) << qint64(1'700'000'000'000'000);
        QTest::newRow("stamped later than now: another clock") << qint64(1001'000'000'000)
                                                               << qint64(1'700'000'000'000'000);
        QTest::newRow("stamped 999 s ago: another clock") << qint64(1'000'000'000) << qint64(1'700'000'000'000'000);
    }

    void captureTimeOfStamp()
    {
        QFETCH(qint64, ptsNs);
        QFETCH(qint64, captured);
        QCOMPARE(monotonicToCaptureTime(ptsNs, 1000'000'000'000, 1'700'000'000'000'000), captured);
    }
};

QTEST_GUILESS_MAIN(ScreenCastTest)
#include "ScreenCastTest.moc"
