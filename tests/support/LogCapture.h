#pragma once

#include <QLoggingCategory>
#include <QMap>
#include <QMutex>
#include <QStringList>

#include <atomic>
#include <cstring>

namespace orvane::test {

// Takes the log lines of every thread while it lives, instead of printing
// them (QTest::ignoreMessage does not see them). Of nested captures, the
// innermost takes the lines.
class LogCapture
{
public:
    // debug: also the debug lines of "screenreel", whatever the logging rules say.
    explicit LogCapture(bool debug = false)
        : outer(current.exchange(this)), previous(qInstallMessageHandler(&handle)), debug(debug)
    {
        if (debug)
            previousFilter = QLoggingCategory::installFilter(&enableDebug);
    }
    ~LogCapture()
    {
        if (debug)
            QLoggingCategory::installFilter(previousFilter);
        qInstallMessageHandler(previous);
        current = outer;
    }

    QStringList texts(QtMsgType type) const
    {
        QMutexLocker lock(&mutex);
        return captured.value(type);
    }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        if (LogCapture* self = current) {
            QMutexLocker lock(&self->mutex);
            self->captured[type] << text;
        }
    }
    static void enableDebug(QLoggingCategory* category)
    {
        if (previousFilter)
            previousFilter(category);
        if (std::strcmp(category->categoryName(), "screenreel") == 0)
            category->setEnabled(QtDebugMsg, true);
    }

    static inline std::atomic<LogCapture*> current{nullptr};
    static inline QLoggingCategory::CategoryFilter previousFilter = nullptr;
    LogCapture* const outer;
    const QtMessageHandler previous;
    const bool debug;
    mutable QMutex mutex;
    QMap<QtMsgType, QStringList> captured;
};

} // namespace orvane::test
