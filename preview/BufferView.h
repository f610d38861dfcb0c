#pragma once

#include <QElapsedTimer>
#include <QImage>
#include <QMutex>
#include <QWidget>

#include <memory>

class QPainter;

namespace orvane {

class BufferView;

// Scales an RGB32 image into `to` (RGB32, of the size wanted) by nearest
// pixel centres, as Qt::FastTransformation picks them, every pixel opaque.
// Reads only the pixels it shows.
void scaleToRgb32(const QImage& from, QImage& to);

// Where the video thread drops images for the preview. Producers hold it by
// shared pointer, so it outlives the widget: a hand-over that meets the
// widget's destruction finds `view` cleared instead of a half-destroyed widget.
class PreviewFeed
{
public:
    // Any thread. Keeps a shared reference to the image (no pixels are copied)
    // and asks the widget for a repaint unless one is on its way. Never waits
    // for a paint.
    void setImage(const QImage& image);

private:
    friend class BufferView;

    QMutex mutex;                // guards all below; held only for a few assignments
    BufferView* view = nullptr;  // cleared first thing in the widget's destructor
    QImage image;                // the newest image; its pixels are never written again
    QElapsedTimer elapsedTimer;  // clock of the frame-rate figure
    int rate = 0;                // images per second over the last interval
    qint64 lastElapsed = -1;     // clock reading at the last hand-over; -1 before the first
    bool repaintAsked = false;   // a request is on its way and no paint has taken the image yet
};

// The live preview: shows the newest image scaled to fit, centred, with an
// optional frame-rate figure at the image's top-left corner.
class BufferView : public QWidget
{
    Q_OBJECT

public:
    BufferView(QWidget* parent, bool showRate);
    ~BufferView() override;

    // Any thread; see PreviewFeed::setImage.
    void setImage(const QImage& image);
    std::shared_ptr<PreviewFeed> feed() const;

signals:
    void imageChanged();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void drawRate(QPainter& painter, int rate);

    const std::shared_ptr<PreviewFeed> imageFeed;
    const bool showRate;
    // GUI thread only: the newest image as painted, scaled to the widget and
    // in the window's format, made once per image and size.
    QImage shown;
    qint64 shownKey = 0;
    QSize shownFor;
};

} // namespace orvane
