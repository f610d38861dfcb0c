// The preview as it paints, read back with QWidget::grab. Its feed outliving
// it while the capture thread hands on images is the recording tests' matter.
#include "preview/BufferView.h"

#include <QPainter>
#include <QtTest>

using orvane::BufferView;

namespace {

QImage shot(QWidget& view)
{
    return view.grab().toImage().convertToFormat(QImage::Format_RGB32);
}

// With a zero padding byte, as a grabber may give: shown opaque all the same.
QImage green(QSize size)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(0x0000ff00u);
    return image;
}

// What a view should show: bars in the window colour, the image at `drawn`,
// and the red figure at the image's corner.
QImage expected(QSize size, QRect drawn, const QString& figure)
{
    QImage image(size, QImage::Format_RGB32);
    image.fill(QPalette().window().color());
    QPainter painter(&image);
    painter.fillRect(drawn, Qt::green);
    QFont font;
    font.setPixelSize(18);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::red);
    painter.drawText(drawn.topLeft() + QPointF(5, 15), figure);
    painter.end();
    return image;
}

} // namespace

class BufferViewTest : public QObject
{
    Q_OBJECT

private slots:
    void paints_data()
    {
        QTest::addColumn<QSize>("widget");
        QTest::addColumn<QSize>("image");
        QTest::addColumn<QRect>("drawn");
        QTest::addColumn<bool>("showRate");
        QTest::newRow("wide image: bars above and below") << QSize(200, 200) << QSize(400, 100) << QRect(0, 75, 200, 50) << true;
        QTest::newRow("tall image: bars left and right") << QSize(200, 100) << QSize(50, 100) << QRect(75, 0, 50, 100) << true;
        QTest::newRow("small image scaled up, no figure") << QSize(200, 100) << QSize(20, 10) << QRect(0, 0, 200, 100) << false;
        QTest::newRow("no image to draw") << QSize(120, 80) << QSize() << QRect() << true;
    }
    // The image scaled to fit with bars around it, and the figure at its corner.
    void paints()
    {
        QFETCH(QSize, widget);
        QFETCH(QSize, image);
        QFETCH(QRect, drawn);
        QFETCH(bool, showRate);
        BufferView view(nullptr, showRate);
        view.resize(widget);
        if (image.isEmpty())
            QTest::ignoreMessage(QtInfoMsg, "no image to draw");
        else
            view.setImage(green(image));
        // The first hand-over has no interval: the figure shows 0.
        QCOMPARE(shot(view), expected(widget, drawn, showRate && !image.isEmpty() ? "0" : ""));
    }

    // The figure is images per second, also for hand-overs in one millisecond.
    void rateFigure()
    {
        BufferView view(nullptr, true);
        view.resize(200, 100);
        const auto figure = [&view] {
            for (int n = 0; n <= 1000; ++n)
                if (shot(view) == expected(view.size(), view.rect(), QString::number(n)))
                    return n;
            return -1;
        };
        view.setImage(green(view.size()));
        QThread::msleep(40);
        view.setImage(green(view.size()));
        // Images per second over the last interval, which was 40 ms or more.
        const int rate = figure();
        QVERIFY2(rate >= 1 && rate <= 25, qPrintable(QString::number(rate)));
        // Most hand-overs of a burst share their millisecond with the one
        // before: no interval to invert there, and the figure stays a rate.
        for (int i = 0; i < 200; ++i)
            view.setImage(green(view.size()));
        QVERIFY2(figure() > 0, "the figure is no rate");
    }
};

QTEST_MAIN(BufferViewTest)
#include "BufferViewTest.moc"
