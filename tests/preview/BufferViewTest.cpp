// The preview as it paints: placement of the image, the rate figure, and
// hand-overs from other threads, read back from QWidget::grab.
#include "preview/BufferView.h"

#include <QElapsedTimer>
#include <QPainter>
#include <QThread>
#include <QtTest>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

using orvane::BufferView;

namespace {

// What the bars beside the image show: the widget's own background.
const QColor background(Qt::blue);

QImage filled(QSize size, QColor colour)
{
    QImage image(size, QImage::Format_BGR888);
    image.fill(colour);
    return image;
}

std::unique_ptr<BufferView> makeView(QSize size, bool showRate)
{
    auto view = std::make_unique<BufferView>(nullptr, showRate);
    QPalette palette = view->palette();
    palette.setColor(QPalette::Window, background);
    view->setPalette(palette);
    view->setAutoFillBackground(true);
    view->resize(size);
    return view;
}

QImage shot(QWidget& widget)
{
    return widget.grab().toImage().convertToFormat(QImage::Format_RGB32);
}

bool hasRed(const QImage& image, const QRect& area)
{
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) {
            const QColor c = image.pixelColor(x, y);
            if (c.red() > 128 && c.green() < 64 && c.blue() < 64)
                return true;
        }
    return false;
}

// The number a rate view shows over a black image that fills it, found by
// drawing each candidate the way the figure is drawn onto the same picture
// without it.
std::optional<int> figureShown(BufferView& view, const QImage& image)
{
    auto plain = makeView(view.size(), false);
    plain->setImage(image);
    const QPixmap base = plain->grab();
    const QImage shown = view.grab().toImage();
    QFont font;
    font.setPixelSize(18);
    font.setWeight(QFont::Bold);
    for (int candidate = 0; candidate <= 1000; ++candidate) {
        QPixmap reference = base;
        QPainter painter(&reference);
        painter.setPen(QColor(Qt::red));
        painter.setFont(font);
        painter.drawText(QPointF(5.0, 15.0), QString::number(candidate));
        painter.end();
        if (reference.toImage() == shown)
            return candidate;
    }
    return std::nullopt;
}

class PaintCounter : public QObject
{
public:
    std::atomic<int> paints{0};

protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Paint)
            ++paints;
        return false;
    }
};

} // namespace

class BufferViewTest : public QObject
{
    Q_OBJECT

private slots:
    void placement_data();
    void placement();
    void nothingToDraw();
    void figureOnlyWithShowRate();
    void rateFigure();
    void handOverFromAnotherThread();
    void widgetDestroyedWhileFed();
};

void BufferViewTest::placement_data()
{
    QTest::addColumn<QSize>("widget");
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QRect>("drawn");

    QTest::newRow("wide image in a square widget: bars above and below")
        << QSize(200, 200) << QSize(400, 100) << QRect(0, 75, 200, 50);
    QTest::newRow("tall image in a wide widget: bars left and right")
        << QSize(200, 100) << QSize(50, 100) << QRect(75, 0, 50, 100);
    QTest::newRow("small image is scaled up")
        << QSize(200, 100) << QSize(20, 10) << QRect(0, 0, 200, 100);
    QTest::newRow("large image of the widget's proportions fills it")
        << QSize(200, 100) << QSize(1920, 960) << QRect(0, 0, 200, 100);
}

void BufferViewTest::placement()
{
    QFETCH(QSize, widget);
    QFETCH(QSize, image);
    QFETCH(QRect, drawn);

    auto view = makeView(widget, false);
    view->setImage(filled(image, Qt::green));

    QImage expected(widget, QImage::Format_RGB32);
    expected.fill(background);
    QPainter(&expected).fillRect(drawn, Qt::green);
    QCOMPARE(shot(*view), expected);
}

void BufferViewTest::nothingToDraw()
{
    auto view = makeView(QSize(120, 80), true);
    QImage expected(view->size(), QImage::Format_RGB32);
    expected.fill(background);

    QTest::ignoreMessage(QtInfoMsg, "no image to draw");
    QCOMPARE(shot(*view), expected);
}

void BufferViewTest::figureOnlyWithShowRate()
{
    // A wide image in a square widget: its top edge is at y 75.
    const QImage image = filled(QSize(400, 100), Qt::black);
    const QRect figureArea(0, 75, 80, 22);

    auto quiet = makeView(QSize(200, 200), false);
    quiet->setImage(image);
    const QImage plain = shot(*quiet);
    QVERIFY(!hasRed(plain, plain.rect()));

    auto rated = makeView(QSize(200, 200), true);
    rated->setImage(image);
    QImage withFigure = shot(*rated);
    QVERIFY2(hasRed(withFigure, figureArea), "no figure at the image's corner");
    // Nothing red outside the figure's place: it goes with the image, not
    // into the widget's top bar.
    QPainter(&withFigure).fillRect(figureArea, Qt::black);
    QCOMPARE(withFigure, plain);
}

void BufferViewTest::rateFigure()
{
    const QImage image = filled(QSize(200, 100), Qt::black);
    auto view = makeView(image.size(), true);

    view->setImage(image);
    QCOMPARE(figureShown(*view, image), std::optional<int>(0));  // no interval yet

    // Images per second from the last interval, truncated.
    view->setImage(image);
    QElapsedTimer clock;
    clock.start();
    QThread::msleep(40);
    const qint64 interval = clock.elapsed();  // the view's may be up to 2 ms longer
    view->setImage(image);
    const std::optional<int> rate = figureShown(*view, image);
    QVERIFY(rate);
    QVERIFY2(*rate >= int(1000.0 / double(interval + 2)) && *rate <= int(1000.0 / double(interval)),
             qPrintable(QStringLiteral("%1 after %2 ms").arg(*rate).arg(interval)));

    // A burst: most hand-overs fall in the same millisecond as the one
    // before, which has no rate of its own; the figure stays a real one.
    for (int i = 0; i < 200; ++i)
        view->setImage(image);
    const std::optional<int> afterBurst = figureShown(*view, image);
    QVERIFY2(afterBurst, "the figure is no rate");
    bool plausible = *afterBurst == *rate;
    for (int gap = 1; gap <= 1000 && !plausible; ++gap)
        plausible = *afterBurst == 1000 / gap;
    QVERIFY2(plausible, qPrintable(QString::number(*afterBurst)));

    // An interval over a second gives 0.
    QThread::msleep(1100);
    view->setImage(image);
    QCOMPARE(figureShown(*view, image), std::optional<int>(0));
}

void BufferViewTest::handOverFromAnotherThread()
{
    auto view = makeView(QSize(160, 90), false);
    view->setImage(filled(QSize(160, 90), Qt::black));
    PaintCounter counter;
    view->installEventFilter(&counter);
    view->show();
    QVERIFY(QTest::qWaitForWindowExposed(view.get()));
    QTRY_VERIFY(counter.paints > 0);
    QTest::qWait(100);

    counter.paints = 0;
    std::thread producer([&] { view->setImage(filled(QSize(160, 90), Qt::green)); });
    producer.join();
    QCOMPARE(counter.paints.load(), 0);  // the repaint waits for the event loop
    QTRY_VERIFY(counter.paints > 0);
    QCOMPARE(shot(*view).pixelColor(80, 45), QColor(Qt::green));
}

void BufferViewTest::widgetDestroyedWhileFed()
{
    auto* view = makeView(QSize(160, 90), true).release();
    view->setImage(filled(QSize(320, 180), Qt::black));
    view->show();
    QVERIFY(QTest::qWaitForWindowExposed(view));
    const std::shared_ptr<orvane::PreviewFeed> feed = view->feed();

    std::atomic<bool> stop{false};
    std::atomic<int> handed{0};
    std::thread producer([&] {
        const QImage image = filled(QSize(320, 180), Qt::green);
        while (!stop) {
            feed->setImage(image);
            ++handed;
        }
    });
    // Let paints and hand-overs meet for a while, then pull the widget away.
    QTRY_VERIFY(handed > 1000);
    QTest::qWait(200);
    delete view;
    const int atDeletion = handed;
    QTRY_VERIFY(handed > atDeletion + 1000);
    QTest::qWait(100);  // events the feed posted before may still be around
    stop = true;
    producer.join();
}

QTEST_MAIN(BufferViewTest)
#include "BufferViewTest.moc"
