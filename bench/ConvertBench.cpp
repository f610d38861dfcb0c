// Times the picture conversions a recording makes per frame, by swscale and
// by libyuv, and says how far apart their colours are: what the grabber
// delivers (BGR0) to BGR24, BGR24 to the encoder's YUV420P, BGR0 straight to
// YUV420P; then the preview's ways of putting a BGR888 image on an RGB32
// surface (the window's backing store).
//
//   convert-bench [--size WxH] [--frames N]

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <libyuv/convert.h>
#include <libyuv/convert_from_argb.h>

#include "preview/BufferView.h"

#include <QCoreApplication>
#include <QImage>
#include <QPainter>
#include <QStringList>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <vector>

namespace {

double millisecondsPerFrame(int frames, const std::function<void(int)>& work)
{
    work(0);  // warm caches and lazily built tables
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 1; i <= frames; ++i)
        work(i);
    const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - begin;
    return spent.count() / frames;
}

// A picture that differs from frame to frame a little, like a screen.
void paint(std::vector<uint8_t>& bgr0, int w, int h, int frame)
{
    for (int y = 0; y < h; ++y) {
        uint8_t* row = bgr0.data() + size_t(y) * size_t(w) * 4;
        for (int x = 0; x < w; ++x) {
            row[4 * x] = uint8_t(x + frame);
            row[4 * x + 1] = uint8_t(y);
            row[4 * x + 2] = uint8_t((x ^ y) + frame);
            row[4 * x + 3] = 0;
        }
    }
}

// Flat blocks of 8 by 8 of many colours: conversions that subsample the
// chroma by different filters agree on them, so what differs is the matrix.
void paintBlocks(std::vector<uint8_t>& bgr0, int w, int h)
{
    for (int y = 0; y < h; ++y) {
        uint8_t* row = bgr0.data() + size_t(y) * size_t(w) * 4;
        for (int x = 0; x < w; ++x) {
            const int block = (y / 8) * (w / 8) + x / 8;
            row[4 * x] = uint8_t(block * 37);
            row[4 * x + 1] = uint8_t(block * 91 >> 2);
            row[4 * x + 2] = uint8_t(block * 13 + 128);
            row[4 * x + 3] = 0;
        }
    }
}

int largestDifference(const uint8_t* a, const uint8_t* b, size_t n)
{
    int largest = 0;
    for (size_t i = 0; i < n; ++i)
        largest = std::max(largest, std::abs(int(a[i]) - int(b[i])));
    return largest;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int w = 1920, h = 1080, frames = 100;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--size")) {
            const QStringList wh = args[i + 1].split(QLatin1Char('x'));
            w = wh.value(0).toInt();
            h = wh.value(1).toInt();
        } else if (args[i] == QLatin1String("--frames")) {
            frames = args[i + 1].toInt();
        }
    }
    if (w <= 0 || h <= 0 || frames <= 0) {
        std::fprintf(stderr, "usage: convert-bench [--size WxH] [--frames N]\n");
        return 2;
    }

    std::vector<uint8_t> bgr0(size_t(w) * size_t(h) * 4);
    paint(bgr0, w, h, 0);
    QImage bgr24(w, h, QImage::Format_BGR888);
    std::vector<uint8_t> yuv(size_t(w) * size_t(h) * 3 / 2 + 64);
    uint8_t* yuvPlanes[4] = {yuv.data(), yuv.data() + size_t(w) * size_t(h),
                             yuv.data() + size_t(w) * size_t(h) * 5 / 4, nullptr};
    const int yuvStrides[4] = {w, w / 2, w / 2, 0};
    const uint8_t* bgr0Planes[4] = {bgr0.data(), nullptr, nullptr, nullptr};
    const int bgr0Strides[4] = {w * 4, 0, 0, 0};

    SwsContext* toBgr24 = sws_getContext(w, h, AV_PIX_FMT_BGR0, w, h, AV_PIX_FMT_BGR24, SWS_FAST_BILINEAR,
                                         nullptr, nullptr, nullptr);
    SwsContext* bgr24ToYuv = sws_getContext(w, h, AV_PIX_FMT_BGR24, w, h, AV_PIX_FMT_YUV420P,
                                            SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    SwsContext* bgr0ToYuv = sws_getContext(w, h, AV_PIX_FMT_BGR0, w, h, AV_PIX_FMT_YUV420P,
                                           SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    if (!toBgr24 || !bgr24ToYuv || !bgr0ToYuv) {
        std::fprintf(stderr, "no converter\n");
        return 1;
    }

    std::printf("%dx%d, %d frames, ms per frame:              swscale   libyuv\n", w, h, frames);
    QImage yuvBgr24(w, h, QImage::Format_BGR888);
    const double a = millisecondsPerFrame(frames, [&](int) {
        uint8_t* planes[4] = {bgr24.bits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(toBgr24, bgr0Planes, bgr0Strides, 0, h, planes, strides);
    });
    // libyuv names formats by the little-endian word: its ARGB is BGR0 in
    // memory, its RGB24 is BGR24.
    const double ya = millisecondsPerFrame(frames, [&](int) {
        libyuv::ARGBToRGB24(bgr0.data(), w * 4, yuvBgr24.bits(), int(yuvBgr24.bytesPerLine()), w, h);
    });
    std::printf("  BGR0 -> BGR24                          %7.2f  %7.2f\n", a, ya);
    const double b = millisecondsPerFrame(frames, [&](int) {
        const uint8_t* planes[4] = {bgr24.constBits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(bgr24ToYuv, planes, strides, 0, h, yuvPlanes, yuvStrides);
    });
    std::vector<uint8_t> yuv2(yuv.size());
    uint8_t* yuv2Planes[3] = {yuv2.data(), yuv2.data() + (yuvPlanes[1] - yuv.data()),
                              yuv2.data() + (yuvPlanes[2] - yuv.data())};
    const double yb = millisecondsPerFrame(frames, [&](int) {
        libyuv::RGB24ToI420(bgr24.constBits(), int(bgr24.bytesPerLine()), yuv2Planes[0], yuvStrides[0],
                            yuv2Planes[1], yuvStrides[1], yuv2Planes[2], yuvStrides[2], w, h);
    });
    std::printf("  BGR24 -> YUV420P                       %7.2f  %7.2f\n", b, yb);
    std::printf("    the two together                     %7.2f  %7.2f\n", a + b, ya + yb);
    const double c = millisecondsPerFrame(frames, [&](int) {
        sws_scale(bgr0ToYuv, bgr0Planes, bgr0Strides, 0, h, yuvPlanes, yuvStrides);
    });
    const double yc = millisecondsPerFrame(frames, [&](int) {
        libyuv::ARGBToI420(bgr0.data(), w * 4, yuv2Planes[0], yuvStrides[0], yuv2Planes[1], yuvStrides[1],
                           yuv2Planes[2], yuvStrides[2], w, h);
    });
    std::printf("  BGR0 -> YUV420P                        %7.2f  %7.2f\n", c, yc);

    // The same picture both ways: BGR24 must match byte for byte, YUV within
    // rounding (both BT.601, limited range).
    paintBlocks(bgr0, w, h);
    {
        uint8_t* planes[4] = {bgr24.bits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(toBgr24, bgr0Planes, bgr0Strides, 0, h, planes, strides);
        libyuv::ARGBToRGB24(bgr0.data(), w * 4, yuvBgr24.bits(), int(yuvBgr24.bytesPerLine()), w, h);
        const uint8_t* source[4] = {bgr24.constBits(), nullptr, nullptr, nullptr};
        sws_scale(bgr24ToYuv, source, strides, 0, h, yuvPlanes, yuvStrides);
        libyuv::RGB24ToI420(bgr24.constBits(), int(bgr24.bytesPerLine()), yuv2Planes[0], yuvStrides[0],
                            yuv2Planes[1], yuvStrides[1], yuv2Planes[2], yuvStrides[2], w, h);
    }
    std::printf("  largest difference, swscale to libyuv: BGR24 %d, Y %d, U and V %d levels\n",
                largestDifference(bgr24.constBits(), yuvBgr24.constBits(), size_t(bgr24.sizeInBytes())),
                largestDifference(yuv.data(), yuv2.data(), size_t(w) * size_t(h)),
                largestDifference(yuvPlanes[1], yuv2Planes[1], size_t(w) * size_t(h) / 2));

    // The preview: a 640x360 view of the image on an RGB32 surface.
    const QSize view(640, 360);
    QImage surface(view, QImage::Format_RGB32);
    const auto draw = [&surface](const QImage& image, const QRect& target) {
        QPainter painter(&surface);
        painter.drawImage(target, image);
    };
    const double d = millisecondsPerFrame(frames, [&](int) {
        const QImage scaled = bgr24.scaled(view, Qt::KeepAspectRatio, Qt::FastTransformation);
        draw(scaled, scaled.rect());
    });
    std::printf("  preview: BGR888 scaled, then drawn     %7.2f\n", d);
    const double e = millisecondsPerFrame(frames, [&](int) { draw(bgr24, surface.rect()); });
    std::printf("  preview: BGR888 scaled while drawn     %7.2f\n", e);
    const double f = millisecondsPerFrame(frames, [&](int) {
        const QImage scaled =
            bgr24.scaled(view, Qt::KeepAspectRatio, Qt::FastTransformation).convertToFormat(QImage::Format_RGB32);
        Q_UNUSED(scaled)
    });
    QImage ownView(bgr24.size().scaled(view, Qt::KeepAspectRatio), QImage::Format_RGB32);
    const double h2 = millisecondsPerFrame(frames, [&](int) { orvane::scaleToRgb32(bgr24, ownView); });
    std::printf("  preview: BufferView's own scaling      %7.2f\n", h2);
    const QImage rgb32View = bgr24.scaled(view, Qt::KeepAspectRatio).convertToFormat(QImage::Format_RGB32);
    const double g = millisecondsPerFrame(frames, [&](int) { draw(rgb32View, rgb32View.rect()); });
    std::printf("  preview: scaled to RGB32 once, drawn   %7.2f + %.2f a paint\n", f, g);
    const double i = millisecondsPerFrame(frames, [&](int) {
        const QImage copy = bgr24.copy(QRect(0, 0, w * 2 / 3, h * 2 / 3));
        Q_UNUSED(copy)
    });
    std::printf("  region copy (2/3 size)                 %7.2f\n", i);

    sws_freeContext(toBgr24);
    sws_freeContext(bgr24ToYuv);
    sws_freeContext(bgr0ToYuv);
    return 0;
}
