// Times the picture work a recording does per frame, by swscale and by
// libyuv, and says how far apart their colours are: the one conversion of
// what the grabber delivers (BGR0, handed over as RGB32 without a copy) to
// the encoder's YUV420P, against the two of a BGR24 hand-over; the copies
// made where a region is cut or the layout is RGB0; the general path of
// another grabber format; then the preview's ways of putting an RGB32 image
// on an RGB32 surface (the window's backing store).
//
//   convert-bench [--size WxH] [--frames N]

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <libyuv/convert.h>
#include <libyuv/convert_from_argb.h>

#include "capture/FrameFitter.h"
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
    // Not SWS_FAST_BILINEAR: from BGR0 it puts some 8-pixel blocks of a
    // 1920-wide picture up to 74 levels off in Y here.
    SwsContext* bgr0ToYuv = sws_getContext(w, h, AV_PIX_FMT_BGR0, w, h, AV_PIX_FMT_YUV420P,
                                           SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (!toBgr24 || !bgr24ToYuv || !bgr0ToYuv) {
        std::fprintf(stderr, "no converter\n");
        return 1;
    }

    std::printf("%dx%d, %d frames, ms per frame:              swscale   libyuv\n", w, h, frames);
    std::vector<uint8_t> yuv2(yuv.size());
    uint8_t* yuv2Planes[3] = {yuv2.data(), yuv2.data() + (yuvPlanes[1] - yuv.data()),
                              yuv2.data() + (yuvPlanes[2] - yuv.data())};
    const double c = millisecondsPerFrame(frames, [&](int) {
        sws_scale(bgr0ToYuv, bgr0Planes, bgr0Strides, 0, h, yuvPlanes, yuvStrides);
    });
    // libyuv names formats by the little-endian word: its ARGB is BGR0 in
    // memory (RGB32), its RGB24 is BGR24.
    const double yc = millisecondsPerFrame(frames, [&](int) {
        libyuv::ARGBToI420(bgr0.data(), w * 4, yuv2Planes[0], yuvStrides[0], yuv2Planes[1], yuvStrides[1],
                           yuv2Planes[2], yuvStrides[2], w, h);
    });
    std::printf("  RGB32 -> YUV420P (the Muxer)           %7.2f  %7.2f\n", c, yc);
    QImage yuvBgr24(w, h, QImage::Format_BGR888);
    const double a = millisecondsPerFrame(frames, [&](int) {
        uint8_t* planes[4] = {bgr24.bits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(toBgr24, bgr0Planes, bgr0Strides, 0, h, planes, strides);
    });
    const double ya = millisecondsPerFrame(frames, [&](int) {
        libyuv::ARGBToRGB24(bgr0.data(), w * 4, yuvBgr24.bits(), int(yuvBgr24.bytesPerLine()), w, h);
    });
    const double b = millisecondsPerFrame(frames, [&](int) {
        const uint8_t* planes[4] = {bgr24.constBits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(bgr24ToYuv, planes, strides, 0, h, yuvPlanes, yuvStrides);
    });
    const double yb = millisecondsPerFrame(frames, [&](int) {
        libyuv::RGB24ToI420(bgr24.constBits(), int(bgr24.bytesPerLine()), yuv2Planes[0], yuvStrides[0],
                            yuv2Planes[1], yuvStrides[1], yuv2Planes[2], yuvStrides[2], w, h);
    });
    std::printf("  a BGR24 hand-over: BGR0 -> BGR24       %7.2f  %7.2f\n", a, ya);
    std::printf("    then BGR24 -> YUV420P                %7.2f  %7.2f\n", b, yb);
    std::printf("    the two together                     %7.2f  %7.2f  (%.2f more than RGB32)\n", a + b, ya + yb,
                ya + yb - yc);

    // Copies made only where the frame is not the region's image as it is.
    const QRect region(w / 6, h / 6, w * 2 / 3, h * 2 / 3);
    orvane::FrameFitter cut(region, QRect());
    const orvane::Picture whole{bgr0.data(), w * 4, QSize(w, h), orvane::PixelLayout::bgrx};
    const double fc = millisecondsPerFrame(frames, [&](int) { (void)cut.fit(whole); });
    orvane::FrameFitter same(QRect(0, 0, w, h), QRect());
    orvane::Picture swapped = whole;
    swapped.layout = orvane::PixelLayout::rgbx;
    const double fs = millisecondsPerFrame(frames, [&](int) { (void)same.fit(swapped); });
    std::printf("  copy: a 2/3 region cut (FrameFitter)             %7.2f\n", fc);
    std::printf("  copy: RGB0 swapped to RGB32 (FrameFitter)        %7.2f\n", fs);
    // The general path: another format (a 16-bit display) converted by swscale.
    std::vector<uint8_t> rgb565(size_t(w) * size_t(h) * 2);
    SwsContext* fromRgb565 = sws_getContext(w, h, AV_PIX_FMT_RGB565, w, h, AV_PIX_FMT_BGRA, SWS_POINT, nullptr,
                                            nullptr, nullptr);
    QImage general(w, h, QImage::Format_RGB32);
    const double gp = millisecondsPerFrame(frames, [&](int) {
        const uint8_t* planes[4] = {rgb565.data(), nullptr, nullptr, nullptr};
        const int strides[4] = {w * 2, 0, 0, 0};
        uint8_t* out[4] = {general.bits(), nullptr, nullptr, nullptr};
        const int outStrides[4] = {int(general.bytesPerLine()), 0, 0, 0};
        sws_scale(fromRgb565, planes, strides, 0, h, out, outStrides);
    });
    std::printf("  general path: RGB565 -> RGB32          %7.2f\n", gp);

    // The same picture both ways: YUV within rounding (both BT.601, limited
    // range).
    paintBlocks(bgr0, w, h);
    sws_scale(bgr0ToYuv, bgr0Planes, bgr0Strides, 0, h, yuvPlanes, yuvStrides);
    libyuv::ARGBToI420(bgr0.data(), w * 4, yuv2Planes[0], yuvStrides[0], yuv2Planes[1], yuvStrides[1],
                       yuv2Planes[2], yuvStrides[2], w, h);
    std::printf("  largest difference, swscale to libyuv: Y %d, U and V %d levels\n",
                largestDifference(yuv.data(), yuv2.data(), size_t(w) * size_t(h)),
                largestDifference(yuvPlanes[1], yuv2Planes[1], size_t(w) * size_t(h) / 2));

    // The preview: a 640x360 view of the image on an RGB32 surface.
    const QImage rgb32(bgr0.data(), w, h, w * 4, QImage::Format_RGB32);
    const QSize view(640, 360);
    QImage surface(view, QImage::Format_RGB32);
    const auto draw = [&surface](const QImage& image, const QRect& target) {
        QPainter painter(&surface);
        painter.drawImage(target, image);
    };
    const double d = millisecondsPerFrame(frames, [&](int) {
        const QImage scaled = rgb32.scaled(view, Qt::KeepAspectRatio, Qt::FastTransformation);
        draw(scaled, scaled.rect());
    });
    std::printf("  preview: Qt scaled, then drawn         %7.2f\n", d);
    const double e = millisecondsPerFrame(frames, [&](int) { draw(rgb32, surface.rect()); });
    std::printf("  preview: scaled while drawn            %7.2f\n", e);
    QImage ownView(rgb32.size().scaled(view, Qt::KeepAspectRatio), QImage::Format_RGB32);
    const double h2 = millisecondsPerFrame(frames, [&](int) { orvane::scaleToRgb32(rgb32, ownView); });
    const double g = millisecondsPerFrame(frames, [&](int) { draw(ownView, ownView.rect()); });
    std::printf("  preview: BufferView's own scaling      %7.2f + %.2f a paint\n", h2, g);

    sws_freeContext(toBgr24);
    sws_freeContext(bgr24ToYuv);
    sws_freeContext(bgr0ToYuv);
    sws_freeContext(fromRgb565);
    return 0;
}
