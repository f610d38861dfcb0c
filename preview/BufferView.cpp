#include "BufferView.h"

#include <QColor>
#include <QFont>
#include <QPainter>
#include <QPen>
#include <QTransform>
#include <QtDebug>

#include <string>
#include <vector>

namespace orvane {

void scaleToRgb32(const QImage& from, QImage& to)
{
    const int sourceWidth = from.width(), sourceHeight = from.height();
    const int width = to.width(), height = to.height();
    if (width <= 0 || height <= 0 || sourceWidth <= 0 || sourceHeight <= 0)
        return;
    std::vector<int> columns(size_t(width), 0);
    for (int x = 0; x < width; ++x)
        columns[size_t(x)] = int((int64_t(2 * x + 1) * sourceWidth) / (2 * int64_t(width)));
    for (int y = 0; y < height; ++y) {
        const auto* source = reinterpret_cast<const quint32*>(
            from.constScanLine(int((int64_t(2 * y + 1) * sourceHeight) / (2 * int64_t(height)))));
        auto* line = reinterpret_cast<quint32*>(to.scanLine(y));
        // The grabber's padding byte may be anything: the window gets opaque
        // pixels.
        for (int x = 0; x < width; ++x)
            line[x] = source[columns[size_t(x)]] | 0xff000000u;
    }
}

void PreviewFeed::setImage(const QImage& newImage)
{
    QMutexLocker lock(&mutex);
    if (!view)
        return;
    image = newImage;
    // Queued: this only posts a repaint request to the widget's thread. One
    // on its way is enough: the paint takes the newest image.
    if (!repaintAsked) {
        repaintAsked = true;
        emit view->imageChanged();
    }
    const qint64 now = elapsedTimer.elapsed();
    // The first hand-over has no interval, and two in one millisecond have
    // none that can be inverted: the figure keeps its last value then.
    if (lastElapsed >= 0 && now > lastElapsed)
        rate = int(1.0 / double(now - lastElapsed) * 1000.0);
    lastElapsed = now;
}

BufferView::BufferView(QWidget* parent, bool showRate)
    : QWidget(parent)
    , imageFeed(std::make_shared<PreviewFeed>())
    , showRate(showRate)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    // Hidden or minimised, nothing is painted, and no request comes until a
    // paint has taken the image: showing the widget again paints it.
    connect(this, &BufferView::imageChanged, this, [this] {
        if (isVisible() && !window()->isMinimized())
            update();
    }, Qt::QueuedConnection);
    QMutexLocker lock(&imageFeed->mutex);
    imageFeed->view = this;
    imageFeed->elapsedTimer.start();
}

BufferView::~BufferView()
{
    QMutexLocker lock(&imageFeed->mutex);
    imageFeed->view = nullptr;
}

void BufferView::setImage(const QImage& image)
{
    imageFeed->setImage(image);
}

std::shared_ptr<PreviewFeed> BufferView::feed() const
{
    return imageFeed;
}

void BufferView::paintEvent(QPaintEvent*)
{
    // The lock only hands the image over: the video thread never waits for
    // the painting, and the pixels of a handed-over image are never written
    // again.
    QImage image;
    int rate;
    {
        QMutexLocker lock(&imageFeed->mutex);
        image = imageFeed->image;
        rate = imageFeed->rate;
        imageFeed->repaintAsked = false;
    }
    QPainter painter(this);
    if (image.isNull()) {
        qInfo() << "no image to draw";
        return;
    }
    // Scaled once per image and size: painting that is a plain copy, where
    // a scaling paint would redo the work at every expose.
    const qint64 key = image.cacheKey();
    if (key != shownKey || size() != shownFor) {
        // The video thread hands RGB32 over; anything else is made so here.
        if (image.format() != QImage::Format_RGB32)
            image = image.convertToFormat(QImage::Format_RGB32);
        // The same buffer serves every image of a size: no new pages per image.
        const QSize scaled = image.size().scaled(size(), Qt::KeepAspectRatio);
        if (shown.size() != scaled)
            shown = QImage(scaled, QImage::Format_RGB32);
        if (!shown.isNull())
            scaleToRgb32(image, shown);
        shownKey = key;
        shownFor = size();
    }
    if (shown.isNull())
        return;
    const float half = 0.5f;
    const float dx = float(width()) * half - float(shown.width()) * half;
    const float dy = float(height()) * half - float(shown.height()) * half;
    QTransform transform;
    transform.translate(double(dx), double(dy));
    painter.setTransform(transform, true);
    painter.drawImage(QPointF(0, 0), shown);
    if (showRate)
        drawRate(painter, rate);
}

void BufferView::drawRate(QPainter& painter, int rate)
{
    QFont font;
    font.setPixelSize(18);
    font.setWeight(QFont::Bold);
    painter.setPen(QPen(QColor(Qt::red)));
    painter.setFont(font);
    painter.drawText(QPointF(5.0, 15.0), QString::fromStdString(std::to_string(rate)));
}

} // namespace orvane
