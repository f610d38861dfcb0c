#include "BufferView.h"

#include <QColor>
#include <QFont>
#include <QPainter>
#include <QPen>
#include <QTransform>
#include <QtDebug>

#include <string>

namespace orvane {

void PreviewFeed::setImage(const QImage& newImage)
{
    QMutexLocker lock(&mutex);
    if (!view)
        return;
    image = newImage;
    // Queued: this only posts a repaint request to the widget's thread.
    emit view->imageChanged();
    const qint64 now = elapsedTimer.elapsed();
    // The first hand-over has no interval, and two in one millisecond have
    // none that can be inverted: the figure keeps its last value then.
    if (lastElapsed >= 0 && now > lastElapsed)
        rate = int(1.0 / double(now - lastElapsed) * 1000.0);
    lastElapsed = now;
}

BufferView::BufferView(QWidget* parent, bool showRate)
    : QWidget(parent)
    , shared(std::make_shared<PreviewFeed>())
    , showRate(showRate)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    connect(this, &BufferView::imageChanged, this, [this] { update(); }, Qt::QueuedConnection);
    QMutexLocker lock(&shared->mutex);
    shared->view = this;
    shared->elapsedTimer.start();
}

BufferView::~BufferView()
{
    QMutexLocker lock(&shared->mutex);
    shared->view = nullptr;
}

void BufferView::setImage(const QImage& image)
{
    shared->setImage(image);
}

std::shared_ptr<PreviewFeed> BufferView::feed() const
{
    return shared;
}

void BufferView::paintEvent(QPaintEvent*)
{
    QMutexLocker lock(&shared->mutex);
    QPainter painter(this);
    if (shared->image.isNull()) {
        qInfo() << "no image to draw";
        return;
    }
    const QImage scaled = shared->image.scaled(size(), Qt::KeepAspectRatio, Qt::FastTransformation);
    const float half = 0.5f;
    const float dx = float(width()) * half - float(scaled.width()) * half;
    const float dy = float(height()) * half - float(scaled.height()) * half;
    QTransform transform;
    transform.translate(double(dx), double(dy));
    painter.setTransform(transform, true);
    painter.drawImage(QPointF(0, 0), scaled);
    if (showRate)
        drawRate(painter, shared->rate);
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
