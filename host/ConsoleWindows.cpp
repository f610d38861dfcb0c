// The console on Windows: the system calls the control handler on a thread
// of its own, which hands the request to the GUI thread.

#include "Console.h"

#include <QMetaObject>
#include <QObject>

#include <cstdio>
#include <mutex>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

namespace {

// What the handler reaches, set while a ConsoleStop lives.
struct Handler
{
    std::mutex lock;
    QObject* context = nullptr;  // guarded by lock
    std::function<void()> stop;  // guarded by lock
    // Set once the recording has finished. Never closed: a handler of a
    // closing console may still be about to wait on it.
    const HANDLE finished = CreateEventW(nullptr, TRUE, FALSE, nullptr);
};

Handler& handler()
{
    static Handler instance;
    return instance;
}

BOOL WINAPI onControl(DWORD type)
{
    Handler& h = handler();
    {
        const std::lock_guard<std::mutex> hold(h.lock);
        if (!h.context)
            return FALSE;
        QMetaObject::invokeMethod(h.context, h.stop, Qt::QueuedConnection);
    }
    // Ctrl+C and Ctrl+Break leave the process running; after a closed
    // console (or a logoff or shutdown) it ends when this returns.
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT && h.finished)
        WaitForSingleObject(h.finished, INFINITE);
    return TRUE;
}

} // namespace

struct ConsoleStop::Private
{
};

ConsoleStop::ConsoleStop(QObject* context, std::function<void()> stop)
    : d(std::make_unique<Private>())
{
    Handler& h = handler();
    {
        const std::lock_guard<std::mutex> hold(h.lock);
        h.context = context;
        h.stop = std::move(stop);
    }
    SetConsoleCtrlHandler(onControl, TRUE);
}

ConsoleStop::~ConsoleStop()
{
    Handler& h = handler();
    SetConsoleCtrlHandler(onControl, FALSE);
    {
        const std::lock_guard<std::mutex> hold(h.lock);
        h.context = nullptr;
        h.stop = nullptr;
    }
    if (h.finished)
        SetEvent(h.finished);
}

int binaryStandardOutput()
{
    const int descriptor = _fileno(stdout);
    _setmode(descriptor, _O_BINARY);
    return descriptor;
}
