#pragma once

#include <QByteArray>
#include <QIODevice>

#include <cstring>

namespace orvane::test {

// A seekable device in memory that refuses every write that would take it
// past `limit` bytes, as a full disk does.
class RefusingDevice : public QIODevice
{
public:
    explicit RefusingDevice(qint64 limit) : limit(limit) {}

    QByteArray bytes;
    const qint64 limit;
    int refusals = 0;

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        const qint64 at = pos();
        if (at + size > limit) {
            ++refusals;
            return -1;
        }
        if (bytes.size() < at + size)
            bytes.resize(int(at + size));
        std::memcpy(bytes.data() + at, data, size_t(size));
        return size;
    }
    qint64 size() const override { return bytes.size(); }
};

// A device that cannot seek and only appends, like a pipe.
class SequentialSink : public QIODevice
{
public:
    bool isSequential() const override { return true; }

    QByteArray bytes;
    int seeks = 0;

    bool seek(qint64 pos) override
    {
        ++seeks;
        return QIODevice::seek(pos);
    }

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        bytes.append(data, int(size));
        return size;
    }
};

} // namespace orvane::test
