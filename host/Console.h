#pragma once

// What the recorder needs of its console that differs between systems:
// ConsolePosix.cpp on Linux, ConsoleWindows.cpp on Windows.

#include <functional>
#include <memory>

class QObject;

// While it lives, Ctrl+C and the system's request to end the program call
// `stop` on `context`'s thread, as the Stop button does: SIGINT and SIGTERM
// on Linux; Ctrl+C, Ctrl+Break and closing the console window on Windows.
// Windows ends a process whose console is closed as soon as its handler
// returns, so that handler returns only once this object is gone (the
// recording finished), or when the system stops waiting.
class ConsoleStop
{
public:
    ConsoleStop(QObject* context, std::function<void()> stop);
    ~ConsoleStop();

    ConsoleStop(const ConsoleStop&) = delete;
    ConsoleStop& operator=(const ConsoleStop&) = delete;

private:
    struct Private;
    const std::unique_ptr<Private> d;
};

// The C runtime's descriptor of standard output, passing bytes through as
// they are (Windows opens it in text mode, which turns 0x0a into 0x0d 0x0a).
int binaryStandardOutput();
