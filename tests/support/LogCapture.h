#pragma once

#include <QMutex>
#include <QStringList>

#include <atomic>

namespace orvane::test {

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
