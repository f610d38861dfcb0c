#include "MediaProbe.h"

#include <QtCore>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

namespace orvane::test {

namespace {

// Standard output of a run of `program`; what went wrong, if anything, in `error`.
QByteArray run(const QString& program, const QStringList& arguments, QString* error = nullptr)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, arguments);
    const bool ran = process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit
                     && process.exitCode() == 0;
    const QString said = QString::fromLocal8Bit(process.readAllStandardError()).trimmed();
    if (error)
        *error = ran ? said : program + " failed: " + said;
    return process.readAllStandardOutput();
}

} // namespace

MediaProbe MediaProbe::fromFile(const QString& path)
{
    MediaProbe probe;
    probe.path = path;
    const QJsonObject json = QJsonDocument::fromJson(
        run("ffprobe", {"-v", "error", "-of", "json", "-show_streams", "-show_packets", path}, &probe.error)).object();
    for (const QJsonValue s : json["streams"].toArray()) {
        const QStringList base = s["time_base"].toString().split('/');
        probe.streams.append({s["codec_type"].toString(), s["codec_name"].toString(), s["pix_fmt"].toString(),
                              s["width"].toInt(), s["height"].toInt(), s["sample_rate"].toString().toInt(),
                              s["channels"].toInt(), base.value(0).toDouble() / base.value(1).toDouble(),
                              s["duration"].toString().toDouble(), {}});
    }
    for (const QJsonValue p : json["packets"].toArray())
        probe.streams[p["stream_index"].toInt()].pts.append(qint64(p["pts"].toDouble()));
    return probe;
}

MediaProbe MediaProbe::fromData(const QByteArray& data)
{
    auto copy = QSharedPointer<QTemporaryFile>::create();
    copy->open();
    copy->write(data);
    copy->flush();
    MediaProbe probe = fromFile(copy->fileName());
    probe.copy = copy;
    return probe;
}

int MediaProbe::streamIndex(const QString& type) const
{
    const auto found = std::find_if(streams.begin(), streams.end(), [&](const ProbedStream& s) { return s.type == type; });
    return found == streams.end() ? -1 : int(found - streams.begin());
}

QVector<QImage> MediaProbe::decodeVideo() const
{
    const ProbedStream video = streams.value(streamIndex("video"));
    const QByteArray raw = run("ffmpeg", {"-v", "error", "-i", path, "-map", "0:v:0", "-fps_mode", "passthrough", "-f", "rawvideo",
                                          "-pix_fmt", "rgb24", "-"});
    QVector<QImage> images;
    const int bytes = video.width * video.height * 3;
    for (int at = 0; bytes > 0 && at + bytes <= raw.size(); at += bytes)
        images << QImage(reinterpret_cast<const uchar*>(raw.constData() + at), video.width, video.height,
                         video.width * 3, QImage::Format_RGB888).copy();
    return images;
}

QVector<float> MediaProbe::decodeAudio() const
{
    const QByteArray raw = run("ffmpeg", {"-v", "error", "-i", path, "-map", "0:a:0", "-f", "f32le", "-"});
    QVector<float> samples(raw.size() / 4);
    std::memcpy(samples.data(), raw.constData(), size_t(samples.size()) * 4);
    return samples;
}

QChar colourLetter(const QColor& c)
{
    return QLatin1Char("KBGCRMYW"[(c.red() > 128) * 4 + (c.green() > 128) * 2 + (c.blue() > 128)]);
}

QString cornerLetters(const QImage& image)
{
    const int right = image.width() - 11, bottom = image.height() - 11;
    QString letters;
    for (const QPoint& point : {QPoint(10, 10), QPoint(right, 10), QPoint(10, bottom), QPoint(right, bottom)})
        letters += colourLetter(image.pixelColor(point));
    return letters;
}

QString pactl(const QStringList& arguments)
{
    return QString::fromUtf8(run("pactl", arguments)).trimmed();
}

QString loadNullSink(const QString& name)
{
    const QString module = pactl({"load-module", "module-null-sink", "sink_name=" + name});
    for (QDeadlineTimer deadline(30000); !deadline.hasExpired(); QThread::msleep(50))
        if (pactl({"list", "short", "sources"}).contains('\t' + name + ".monitor\t"))
            break;
    return module;
}

QString checkTone(const QVector<float>& samples, int channels, int rate, double hz)
{
    const int frames = channels > 0 ? samples.size() / channels : 0;
    if (frames < rate * 3 / 2)
        return QStringLiteral("%1 samples only").arg(frames);
    // Goertzel: the power of one frequency.
    auto power = [&](int channel, double frequency) {
        const double k = 2 * std::cos(2 * M_PI * frequency / rate);
        double last = 0, before = 0;
        for (int i = (frames - rate) / 2; i < (frames + rate) / 2; ++i)
            before = std::exchange(last, samples[i * channels + channel] + k * last - before);
        return last * last + before * before - k * last * before;
    };
    for (int c = 0; c < channels; ++c)
        for (const double other : {0.5, 0.75, 1.25, 1.5, 2.0})
            if (power(c, hz) <= 100 * power(c, hz * other))
                return QStringLiteral("channel %1: %2 Hz as strong as %3 Hz").arg(c).arg(hz * other).arg(hz);
    return {};
}

} // namespace orvane::test
