#include "PartThread.h"

#include "Pipeline.h"

#include <QDeadlineTimer>

namespace orvane {

PartThread::PartThread(const QString& name, Pipeline* pipeline)
    : QThread(pipeline)
{
    setObjectName(name);
}

bool PartThread::startIf(bool valid)
{
    if (valid)
        start(QThread::InheritPriority);
    return valid;
}

void PartThread::stopAndWait(std::chrono::milliseconds grace, const std::function<void()>& unblock)
{
    requestInterruption();
    if (QThread::currentThread() == this)
        return;
    if (unblock && !wait(QDeadlineTimer(grace)))
        unblock();
    wait(QDeadlineTimer(QDeadlineTimer::Forever));
}

} // namespace orvane
