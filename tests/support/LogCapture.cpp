#include "LogCapture.h"

#include <QLoggingCategory>
#include <QStringList>

#include <atomic>
#include <cstring>

namespace orvane::test {

namespace {

std::atomic<LogCapture*> current{nullptr};
QLoggingCategory::CategoryFilter previousFilter = nullptr;

void debugFilter(QLoggingCategory* category)
{
    if (previousFilter)
        previousFilter(category);
    if (std::strcmp(category->categoryName(), "screenreel") == 0)
        category->setEnabled(QtDebugMsg, true);
}

} // namespace

LogCapture::LogCapture(bool debug)
    : debug(debug)
{
    outer = current.exchange(this);
    previous = qInstallMessageHandler(&LogCapture::handle);
    if (debug)
        previousFilter = QLoggingCategory::installFilter(debugFilter);
}

LogCapture::~LogCapture()
{
    if (debug)
        QLoggingCategory::installFilter(previousFilter);
    qInstallMessageHandler(previous);
    current = outer;
}

void LogCapture::handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    LogCapture* self = current;
    if (!self)
        return;
    QMutexLocker lock(&self->mutex);
    self->captured.append({type, QString::fromLatin1(context.category), text});
}

QList<LogCapture::Line> LogCapture::lines() const
{
    QMutexLocker lock(&mutex);
    return captured;
}

QStringList LogCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const Line& line : lines()) {
        if (line.type == type)
            result.append(line.text);
    }
    return result;
}

} // namespace orvane::test
