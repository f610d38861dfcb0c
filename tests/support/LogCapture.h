#pragma once

#include <QList>
#include <QMutex>
#include <QString>
#include <QtGlobal>

namespace orvane::test {

// Collects the log lines of any thread while it lives, instead of printing
// them. QTest::ignoreMessage does not see lines taken here. Captures nest:
// the innermost one takes the lines.
class LogCapture
{
public:
    // debug: also switch on the debug lines of the "screenreel" category,
    // whatever the logging rules of the environment say.
    explicit LogCapture(bool debug = false);
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    struct Line
    {
        QtMsgType type;
        QString category;
        QString text;
    };
    QList<Line> lines() const;
    // Texts of the lines of one type.
    QStringList texts(QtMsgType type) const;

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text);

    mutable QMutex mutex;
    QList<Line> captured;
    QtMessageHandler previous = nullptr;
    LogCapture* outer = nullptr;  // a capture this one is nested in
    bool debug;
};

} // namespace orvane::test
