#pragma once

// What ffprobe reads from a recording: enough to tell a complete, decodable
// MP4 from a truncated or empty one.

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace probe {

struct Stream
{
    QString codec;
    int width = 0;
    int height = 0;
    qint64 frames = 0;
    double duration = 0;
};

struct Media
{
    bool readable = false;
    QString format;
    double duration = 0;
    QList<Stream> streams;
    QString error;

    QStringList codecs() const
    {
        QStringList names;
        for (const Stream& s : streams)
            names << s.codec;
        return names;
    }
    const Stream* stream(const QString& codec) const
    {
        for (const Stream& s : streams)
            if (s.codec == codec)
                return &s;
        return nullptr;
    }
};

// ffprobe's arguments for `path` ("-" reads standard input). Every frame is
// decoded, so a stream cut short shows as few frames rather than as a
// duration copied from the header.
inline QStringList arguments(const QString& path)
{
    return {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-count_frames"),
            QStringLiteral("-show_entries"),
            QStringLiteral("format=format_name,duration:stream=codec_name,width,height,"
                           "nb_read_frames,duration"),
            QStringLiteral("-of"), QStringLiteral("json"), path};
}

// Waits for a started ffprobe and reads its answer.
inline Media read(QProcess& process)
{
    Media media;
    process.waitForFinished(120000);
    media.error = QString::fromLocal8Bit(process.readAllStandardError());
    const QJsonObject root = QJsonDocument::fromJson(process.readAllStandardOutput()).object();
    const QJsonObject format = root.value(QStringLiteral("format")).toObject();
    media.format = format.value(QStringLiteral("format_name")).toString();
    media.duration = format.value(QStringLiteral("duration")).toString().toDouble();
    for (const QJsonValue& value : root.value(QStringLiteral("streams")).toArray()) {
        const QJsonObject s = value.toObject();
        media.streams.append({s.value(QStringLiteral("codec_name")).toString(),
                              s.value(QStringLiteral("width")).toInt(),
                              s.value(QStringLiteral("height")).toInt(),
                              s.value(QStringLiteral("nb_read_frames")).toString().toLongLong(),
                              s.value(QStringLiteral("duration")).toString().toDouble()});
    }
    media.readable = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0
                     && !media.streams.isEmpty();
    return media;
}

inline Media probe(const QString& path)
{
    QProcess process;
    process.start(QStringLiteral("ffprobe"), arguments(path));
    return read(process);
}

} // namespace probe
