#pragma once

#include <QBuffer>

namespace orvane::test {

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

} // namespace orvane::test
