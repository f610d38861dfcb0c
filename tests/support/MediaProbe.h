#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>
#include <QVector>

#include <cstdint>

namespace orvane::test {

struct ProbedPacket
{
    int64_t pts = 0;       // in the stream's time base; INT64_MIN when unset
    int64_t dts = 0;
    int64_t duration = 0;
};

struct ProbedStream
{
    QString type;          // "video", "audio", ...
    QString codec;         // "h264", "aac", ...
    QString pixelFormat;   // video: "yuv420p", ...
    int width = 0;
    int height = 0;
    int timeBaseNum = 0;
    int timeBaseDen = 1;
    int sampleRate = 0;    // audio
    int channels = 0;      // audio
    QVector<ProbedPacket> packets;  // in file order

    double timeBase() const { return double(timeBaseNum) / timeBaseDen; }
};

// Reads an MP4 (or anything libavformat opens) from a file or from memory and
// tells what is in it. Opening reads every packet; decoding opens it again.
class MediaProbe
{
public:
    static MediaProbe fromFile(const QString& path);
    static MediaProbe fromData(const QByteArray& data);

    bool isValid() const { return error.isEmpty(); }

    // Empty when the input opened and every packet was read.
    QString error;
    QVector<ProbedStream> streams;
    double duration = 0;  // seconds, as the container tells it

    // The first video stream's pictures, in presentation order, as RGB888.
    QVector<QImage> decodeVideo(int maxFrames = -1) const;
    // The first audio stream's samples, interleaved float, at its own rate
    // and channel count.
    QVector<float> decodeAudio() const;
    // Index of the first stream of the type, or -1.
    int streamIndex(const QString& type) const;

private:
    void load();

    QString path;
    QByteArray data;
};

} // namespace orvane::test
