// The console on Linux: SIGINT and SIGTERM reach the GUI thread through a
// self-pipe, the only thing a signal handler may safely do being a write.

#include "Console.h"

#include <QObject>
#include <QSocketNotifier>

#include <csignal>
#include <unistd.h>

namespace {

int signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

struct ConsoleStop::Private
{
    std::unique_ptr<QSocketNotifier> notifier;
};

ConsoleStop::ConsoleStop(QObject* context, std::function<void()> stop)
    : d(std::make_unique<Private>())
{
    if (::pipe(signalPipe) != 0)
        return;
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    d->notifier = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(d->notifier.get(), &QSocketNotifier::activated, context, [stop = std::move(stop)] {
        char byte;
        [[maybe_unused]] const ssize_t n = ::read(signalPipe[0], &byte, 1);
        stop();
    });
}

ConsoleStop::~ConsoleStop() = default;

int binaryStandardOutput()
{
    return STDOUT_FILENO;
}
