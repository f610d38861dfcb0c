#pragma once

#include <QImage>
#include <QSharedPointer>
#include <QTemporaryFile>
#include <QVector>

namespace orvane::test {

struct ProbedStream
{
    QString type, codec, pixelFormat;  // "video", "h264", "yuv420p"; "audio", "aac", ""
    int width = 0, height = 0;         // video
    int sampleRate = 0, channels = 0;  // audio
    double timeBase = 0;  // seconds per unit
    double duration = 0;  // seconds, as the container tells it
    QVector<qint64> pts;  // of each packet in file order, in the time base
};

// What a recorded file holds, as ffprobe reads it (every packet), and its
// contents decoded by ffmpeg.
class MediaProbe
{
public:
    static MediaProbe fromFile(const QString& path);
    static MediaProbe fromData(const QByteArray& data);

    bool isValid() const { return error.isEmpty(); }
    // Index of the first stream of the type, or -1.
    int streamIndex(const QString& type) const;
    // The first video stream's pictures, in presentation order.
    QVector<QImage> decodeVideo() const;
    // The first audio stream's samples, interleaved, at its own rate.
    QVector<float> decodeAudio() const;

    QString error;  // what ffprobe complained of; empty for a whole, sound file
    QVector<ProbedStream> streams;

private:
    QString path;
    QSharedPointer<QTemporaryFile> copy;  // fromData's bytes
};

// Empty when the middle second of each channel of interleaved `samples` is
// a clean tone of `hz` (a hundred times the power of nearby frequencies),
// else what is wrong.
QString checkTone(const QVector<float>& samples, int channels, int rate, double hz);

// A colour's letter by which of red, green and blue are above half:
// blacK, Blue, Green, Cyan, Red, Magenta, Yellow, White.
QChar colourLetter(const QColor& colour);

// The letters of the colours 10 px in from the corners: top left, top
// right, bottom left, bottom right.
QString cornerLetters(const QImage& image);

// What the sound server's command line printed, trimmed.
QString pactl(const QStringList& arguments);

// A null sink loaded, once the server lists its monitor (a source opened at
// once may not be there yet on a busy machine): the module's number.
QString loadNullSink(const QString& name);

} // namespace orvane::test
