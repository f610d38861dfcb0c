#pragma once

#include "pipeline/Source.h"
#include "pipeline/Target.h"

#include <QBuffer>
#include <QImage>
#include <QMutex>
#include <QStringList>

#include <atomic>
#include <mutex>

namespace orvane::test {

// A Source without a thread that only reports a picture size.
class FakeSource : public Source
{
public:
    explicit FakeSource(Pipeline* pipeline, const QSize& size = {}) : Source(pipeline), size(size) {}

    bool start() override { return true; }
    void stop() override {}
    QSize videoSize() override { return size; }

    const QSize size;
};

// A Target without a thread that drops what it is given; tests keep what they need.
class NullTarget : public Target
{
public:
    using Target::Target;
    bool start() override { return true; }
    void stop() override {}
    std::chrono::milliseconds recordedTime() override { return {}; }
    void writeAudio(const QByteArray&, qint64, CaptureTime) override {}
    void writeVideo(const QImage&, CaptureTime) override {}
};

// A Target without a thread that keeps the first `keep` images it is given,
// with their capture times, and the newest.
class KeepingTarget : public NullTarget
{
public:
    KeepingTarget(Pipeline* pipeline, int keep) : NullTarget(pipeline), keep(keep) {}
    void writeVideo(const QImage& image, CaptureTime captured) override
    {
        const std::lock_guard<std::mutex> lock(mutex);
        if (kept.size() < keep)
            kept.append({image, captured});
        last = image;
    }
    // Copies, for any thread; the list a copy of its own, as the worker
    // appends to this one in place once no copy shares it.
    QVector<QPair<QImage, CaptureTime>> images() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return QVector<QPair<QImage, CaptureTime>>(kept.cbegin(), kept.cend());
    }
    QImage newest() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return last;
    }

private:
    const int keep;
    mutable std::mutex mutex;  // not a QMutex: the thread sanitizer sees this one
    QVector<QPair<QImage, CaptureTime>> kept;
    QImage last;
};

// A seekable device in memory that refuses every write past `limit` bytes,
// as a full disk does.
class RefusingDevice : public QBuffer
{
public:
    explicit RefusingDevice(qint64 limit) : limit(limit) {}

    const qint64 limit;
    int refusals = 0;

    // Past the end too, as a file allows, and without QBuffer's complaint.
    bool seek(qint64 to) override { return QIODevice::seek(to); }

protected:
    qint64 writeData(const char* data, qint64 size) override
    {
        if (pos() + size <= limit)
            return QBuffer::writeData(data, size);
        ++refusals;
        return -1;
    }
};

// Takes the warnings of every thread while it lives, instead of printing
// them (QTest::ignoreMessage does not see them), and drops the other lines.
// One at a time.
class LogCapture
{
public:
    LogCapture() : previous(qInstallMessageHandler(&handle)) { current = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current = nullptr;
    }

    QStringList warnings() const
    {
        QMutexLocker lock(&mutex);
        return captured;
    }
    bool warned(const QString& text) const { return warnings().join('\n').contains(text); }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        LogCapture* self = current;
        if (self && type == QtWarningMsg) {
            QMutexLocker lock(&self->mutex);
            self->captured << text;
        }
    }

    static inline std::atomic<LogCapture*> current{nullptr};
    const QtMessageHandler previous;
    mutable QMutex mutex;
    QStringList captured;
};

} // namespace orvane::test
