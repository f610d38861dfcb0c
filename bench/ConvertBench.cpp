// Times the picture conversions a recording makes per frame, and the ones
// that could replace them: what the grabber delivers (BGR0) to BGR24, BGR24
// to the encoder's YUV420P, BGR0 straight to YUV420P, and the preview's
// scaling of a BGR888 and of an RGB32 image.
//
//   convert-bench [--size WxH] [--frames N]

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

#include <QCoreApplication>
#include <QImage>
#include <QStringList>

#include <chrono>
#include <cstdio>
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

    std::printf("%dx%d, %d frames, ms per frame:\n", w, h, frames);
    const double a = millisecondsPerFrame(frames, [&](int) {
        uint8_t* planes[4] = {bgr24.bits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(toBgr24, bgr0Planes, bgr0Strides, 0, h, planes, strides);
    });
    std::printf("  BGR0 -> BGR24          %7.2f\n", a);
    const double b = millisecondsPerFrame(frames, [&](int) {
        const uint8_t* planes[4] = {bgr24.constBits(), nullptr, nullptr, nullptr};
        const int strides[4] = {int(bgr24.bytesPerLine()), 0, 0, 0};
        sws_scale(bgr24ToYuv, planes, strides, 0, h, yuvPlanes, yuvStrides);
    });
    std::printf("  BGR24 -> YUV420P       %7.2f\n", b);
    std::printf("    the two together     %7.2f\n", a + b);
    const double c = millisecondsPerFrame(frames, [&](int) {
        sws_scale(bgr0ToYuv, bgr0Planes, bgr0Strides, 0, h, yuvPlanes, yuvStrides);
    });
    std::printf("  BGR0 -> YUV420P        %7.2f\n", c);

    const QImage rgb32(bgr0.data(), w, h, w * 4, QImage::Format_RGB32);
    const QSize view(640, 360);
    const double d = millisecondsPerFrame(frames, [&](int) {
        const QImage scaled = bgr24.scaled(view, Qt::KeepAspectRatio, Qt::FastTransformation);
        Q_UNUSED(scaled)
    });
    std::printf("  preview: BGR888 scaled %7.2f\n", d);
    const double e = millisecondsPerFrame(frames, [&](int) {
        const QImage scaled = rgb32.scaled(view, Qt::KeepAspectRatio, Qt::FastTransformation);
        Q_UNUSED(scaled)
    });
    std::printf("  preview: RGB32 scaled  %7.2f\n", e);
    const double f = millisecondsPerFrame(frames, [&](int) {
        const QImage copy = bgr24.copy(QRect(0, 0, w * 2 / 3, h * 2 / 3));
        Q_UNUSED(copy)
    });
    std::printf("  region copy (2/3 size) %7.2f\n", f);

    sws_freeContext(toBgr24);
    sws_freeContext(bgr24ToYuv);
    sws_freeContext(bgr0ToYuv);
    return 0;
}
