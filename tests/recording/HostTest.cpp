// The reference host as a person runs it: listing, recording to a file, and
// recording into a pipe that a reader consumes while it is written.

#include "Probe.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

namespace {

const QString recorder = QStringLiteral(SCREENREEL_RECORD);

QStringList withPlugin(QStringList arguments)
{
    return arguments << QStringLiteral("--plugin-file") << QString::fromLocal8Bit(qgetenv("SCREENREEL_PLUGIN"));
}

} // namespace

class HostTest : public QObject
{
    Q_OBJECT

private slots:
    void lists();
    void records_data();
    void records();
    void refuses_data();
    void refuses();
};

void HostTest::lists()
{
    QProcess host;
    host.start(recorder, withPlugin({QStringLiteral("--list")}));
    QVERIFY(host.waitForFinished(120000));
    const QString out = QString::fromLocal8Bit(host.readAllStandardOutput());
    QCOMPARE(host.exitCode(), 0);
    QVERIFY2(out.contains(QLatin1String("\n  0: 1920x1080+0+0\n")), qPrintable(out));
    QVERIFY2(out.contains(QRegularExpression(QStringLiteral("\n  \\d+: reel\\.monitor\\b"))), qPrintable(out));
}

void HostTest::records_data()
{
    QTest::addColumn<bool>("pipe");
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("to a file, with preview") << false << QStringList{"--show-rate"};
    QTest::newRow("into a pipe, read as it comes") << true << QStringList{"--no-preview"};
}

void HostTest::records()
{
    QFETCH(bool, pipe);
    QFETCH(QStringList, arguments);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("take.mp4"));
    arguments << QStringLiteral("--audio") << QStringLiteral("reel.monitor")
              << QStringLiteral("--seconds") << QStringLiteral("3")
              << QStringLiteral("-o") << (pipe ? QStringLiteral("-") : path);

    QProcess host;
    QProcess reader;
    if (pipe) {
        host.setStandardOutputProcess(&reader);
        reader.start(QStringLiteral("ffprobe"), probe::arguments(QStringLiteral("-")));
    }
    host.start(recorder, withPlugin(arguments));
    QVERIFY(host.waitForFinished(120000));
    const QString err = QString::fromLocal8Bit(host.readAllStandardError());
    QCOMPARE(host.exitStatus(), QProcess::NormalExit);
    QVERIFY2(host.exitCode() == 0, qPrintable(err));
    QCOMPARE(err.count(QLatin1String("state: started")), 1);
    QCOMPARE(err.count(QLatin1String("state: stopped")), 2);

    const probe::Media media = pipe ? probe::read(reader) : probe::probe(path);
    QVERIFY2(media.readable, qPrintable(media.error));
    QCOMPARE(media.codecs(), QStringList({"h264", "aac"}));
    const probe::Stream* video = media.stream(QStringLiteral("h264"));
    QCOMPARE(QSize(video->width, video->height), QSize(1920, 1080));
    // Generous: the frames that were really encoded, 25 a second.
    QVERIFY2(qAbs(video->duration - 3.0) < 0.5, qPrintable(QString::number(video->duration)));
    QVERIFY(media.stream(QStringLiteral("aac"))->frames > 0);
}

void HostTest::refuses_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("says");

    QTest::newRow("a region larger than the screen")
        << QStringList{"--region", "1921x1080+0+0"} << 1 << "invalid region size";
    QTest::newRow("an audio input that does not exist")
        << QStringList{"--audio", "nosuch"} << 1 << "unable to open device";
    QTest::newRow("a region that cannot be read") << QStringList{"--region", "wide"} << 2 << "--region";
}

void HostTest::refuses()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, says);
    QTemporaryDir dir;
    QProcess host;
    host.start(recorder, withPlugin(arguments << QStringLiteral("--no-preview") << QStringLiteral("--seconds")
                                              << QStringLiteral("2") << QStringLiteral("-o")
                                              << dir.filePath(QStringLiteral("take.mp4"))));
    QVERIFY(host.waitForFinished(120000));
    const QString err = QString::fromLocal8Bit(host.readAllStandardError());
    QCOMPARE(host.exitCode(), exitCode);
    QVERIFY2(err.contains(says), qPrintable(err));
}

QTEST_GUILESS_MAIN(HostTest)
#include "HostTest.moc"
