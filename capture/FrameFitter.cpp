#include "FrameFitter.h"

#include <atomic>

#include <libyuv/convert_argb.h>
#include <libyuv/scale_argb.h>

#include <cmath>

namespace orvane {

QRect FrameFitter::placement(const QRectF& screen, const QRect& region, const QRectF& grabbed)
{
    if (grabbed == screen)
        return {};
    return QRect((grabbed.topLeft() - screen.topLeft()).toPoint() - region.topLeft(), grabbed.size().toSize());
}

FrameFitter::FrameFitter(const QRect& region, const QRect& place, const QSize& screen)
    : region(region)
    , place(place)
    , screen(screen)
{
}

bool FrameFitter::isImage(const Picture& picture) const
{
    // A whole screen of the region's size is the region, wherever the region
    // says it lies: it is handed on whole, neither cut nor moved.
    const bool placed = place.isNull() ? picture.size == region.size() && (screen.isEmpty() || picture.size == screen)
                                       : place == QRect(QPoint(), region.size()) && picture.size == region.size();
    return placed && picture.layout == PixelLayout::bgrx && picture.stride >= picture.size.width() * 4
        && picture.stride % 4 == 0 && reinterpret_cast<uintptr_t>(picture.data) % 4 == 0;
}

QImage FrameFitter::fit(const Picture& picture)
{
    if (picture.size.isEmpty() || !picture.data)
        return QImage();
    // A whole screen at another resolution than the screen's is scaled to it.
    const bool scaled = place.isNull() && !screen.isEmpty() && picture.size != screen;
    // The whole screen lies so that the region's corner is the image's.
    const QRect from = place.isNull() ? QRect(-region.topLeft(), scaled ? screen : picture.size)
                                      : QRect(place.topLeft(), picture.size);
    const QRect target = from & QRect(QPoint(), region.size());
    QImage* image = buffer(target);
    if (!image)
        return QImage();
    if (target.isEmpty())
        return *image;
    const int stride = int(image->bytesPerLine());
    uint8_t* destination = image->bits() + ptrdiff_t(target.y()) * stride + target.x() * 4;
    // libyuv names a layout by its little-endian word: its ARGB is BGRx in
    // memory, its ABGR is RGBx.
    if (scaled) {
        // The part of the picture the target shows, scaled; then reordered
        // in place, where it must be.
        const double x = double(picture.size.width()) / screen.width(), y = double(picture.size.height()) / screen.height();
        const QRect part = target.translated(-from.topLeft());
        const QRect source = QRect(QPoint(int(part.left() * x), int(part.top() * y)),
                                   QPoint(int(std::ceil((part.right() + 1) * x)) - 1, int(std::ceil((part.bottom() + 1) * y)) - 1))
                             & QRect(QPoint(), picture.size);
        libyuv::ARGBScale(picture.data + ptrdiff_t(source.y()) * picture.stride + source.x() * 4, picture.stride,
                          source.width(), source.height(), destination, stride, target.width(), target.height(),
                          libyuv::kFilterBox);
        if (picture.layout == PixelLayout::rgbx)
            libyuv::ABGRToARGB(destination, stride, destination, stride, target.width(), target.height());
    } else {
        const QPoint offset = target.topLeft() - from.topLeft();
        const uint8_t* source = picture.data + ptrdiff_t(offset.y()) * picture.stride + offset.x() * 4;
        const auto copy = picture.layout == PixelLayout::bgrx ? libyuv::ARGBCopy : libyuv::ABGRToARGB;
        copy(source, picture.stride, destination, stride, target.width(), target.height());
    }
    return *image;
}

QImage* FrameFitter::buffer(const QRect& target)
{
    // Pictures of another size cover another part: every buffer starts black
    // again.
    if (target != written) {
        buffers = {};
        written = target;
    }
    for (QImage& image : buffers) {
        if (!image.isNull() && image.isDetached()) {
            // Its last consumer has let go: what that one read happens before
            // what is written now. (ThreadSanitizer models no fences, and it
            // does not see the writes, which libyuv makes.)
#ifndef __SANITIZE_THREAD__
            std::atomic_thread_fence(std::memory_order_acquire);
#endif
            return &image;
        }
    }
    // None free: a new buffer takes an empty place, or that of a held one,
    // whose holders keep their picture.
    QImage* slot = nullptr;
    for (QImage& image : buffers) {
        if (image.isNull()) {
            slot = &image;
            break;
        }
    }
    if (!slot)
        slot = &buffers[next++ % buffers.size()];
    *slot = QImage(region.size(), QImage::Format_RGB32);
    if (slot->isNull())
        return nullptr;
    // What the pictures never cover stays black; the rest is written anyway.
    if (target != slot->rect())
        slot->fill(0xff000000u);
    return slot;
}

} // namespace orvane
