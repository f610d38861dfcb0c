// Linked into every program of a thread-sanitized build that runs our code:
// the tests (tests/CMakeLists.txt) and the recorder (host/CMakeLists.txt).
//
// Qt 5 is not built with the thread sanitizer, and its QMutex and the join in
// QThread::wait go through futexes that the sanitizer cannot see: every
// member guarded by a QMutex, and every object deleted after its thread was
// joined, would show as a race. These definitions take the place of the
// library's for all calls made from the program (our own code is linked
// into it, or loaded as the plug-in), call the library's own code, and tell
// the sanitizer the ordering that code gives:
//   - QMutex::lock acquires, QMutex::unlock releases the mutex;
//   - a thread releases its QThread object when it finishes (the `finished`
//     signal, emitted on that thread after run() has returned), and a
//     successful QThread::wait acquires it.
// Only the forms our code calls are here (no tryLock, no wait in milliseconds).

#include <QMutex>
#include <QThread>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

#include <cstdio>
#include <cstdlib>

namespace {

template <typename Function>
Function original(const char* mangled)
{
    void* symbol = dlsym(RTLD_NEXT, mangled);
    if (!symbol) {
        std::fprintf(stderr, "QtSyncAnnotations: %s not found\n", mangled);
        std::abort();
    }
    return reinterpret_cast<Function>(symbol);
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto lock = original<void (*)(QMutex*)>("_ZN6QMutex4lockEv");
    lock(this);
    __tsan_acquire(this);
}

void QMutex::unlock() noexcept
{
    static const auto unlock = original<void (*)(QMutex*)>("_ZN6QMutex6unlockEv");
    __tsan_release(this);
    unlock(this);
}

void QThread::start(Priority priority)
{
    static const auto start = original<void (*)(QThread*, Priority)>("_ZN7QThread5startENS_8PriorityE");
    connect(this, &QThread::finished, this, [this] { __tsan_release(this); }, Qt::DirectConnection);
    start(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    static const auto wait = original<bool (*)(QThread*, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    const bool ended = wait(this, deadline);
    if (ended)
        __tsan_acquire(this);
    return ended;
}
