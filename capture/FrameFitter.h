#pragma once

#include <QImage>
#include <QRect>

#include <array>
#include <cstdint>

namespace orvane {

// How a grabbed picture's 32-bit pixels lie in memory, byte by byte; the
// fourth byte is alpha or padding.
enum class PixelLayout { bgrx, rgbx };

// A grabbed picture as its grabber lends it: first pixel, bytes from one row
// to the next, size in pixels.
struct Picture
{
    const uint8_t* data = nullptr;
    int stride = 0;
    QSize size;
    PixelLayout layout = PixelLayout::bgrx;
};

// Turns grabbed pictures into the images handed on: Format_RGB32 (blue,
// green, red, padding in memory), of exactly the region's size, parts
// outside the screen black. A grabber delivers either the whole screen, out
// of which the region is cut, or only the part of the region on the screen,
// which goes to its place in the region's image.
class FrameFitter
{
public:
    // Where the grabbed part lies in the region's image; null when the
    // grabber delivers the whole screen.
    static QRect placement(const QRectF& screen, const QRect& region, const QRectF& grabbed);

    // `screen`: the whole screen's size in the region's pixels, for a grabber
    // that may deliver the whole screen at another resolution (a scaled
    // monitor's stream); such a picture is scaled to it. Empty: the pictures
    // are always at the screen's resolution.
    FrameFitter(const QRect& region, const QRect& place, const QSize& screen = QSize());

    // Whether the picture, as it is, is the region's image: nothing to cut,
    // move or reorder, and rows QImage can address (top-down, 4-byte
    // aligned). Such a picture may be
    // handed on without a copy by a grabber that owns its memory.
    bool isImage(const Picture& picture) const;

    // The region's image, copied out of the picture into a buffer that no
    // consumer holds any longer: a handed-over image is never written again,
    // and no new buffer is needed per picture while the consumers let go of
    // older ones in time. Null when the picture is empty or no buffer can be
    // had.
    QImage fit(const Picture& picture);

private:
    QImage* buffer(const QRect& target);

    const QRect region;
    const QRect place;
    const QSize screen;
    // What the last picture covered: a buffer written elsewhere than that
    // would keep pixels that should now be black.
    QRect written;
    // Enough for the one being written, the newest (the encoder's and the
    // preview's) and an older one the encoder still converts or a paint
    // still scales. Only when both read older ones at once is another made.
    std::array<QImage, 3> buffers;
    size_t next = 0;
};

} // namespace orvane
