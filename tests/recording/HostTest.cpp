// The reference host as a person runs it: listing, refusing, and recording to
// a file or into a pipe that a player reads as it is written.

#include "support/MediaProbe.h"

#include <QtTest>

#include <csignal>

using namespace orvane::test;

class HostTest : public QObject
{
    Q_OBJECT

    void run(QProcess& host, QStringList arguments)
    {
        host.start(SCREENREEL_RECORD, arguments << "--plugin-file" << qEnvironmentVariable("SCREENREEL_PLUGIN"));
        QVERIFY(host.waitForStarted());
    }

    // An X server of our own with two 1280x720 heads side by side, showing the
    // test card; false, with the reason, where Xorg cannot start (it needs root).
    bool startTwoScreens(QString* why)
    {
        if (xorg.state() == QProcess::Running)
            return true;
        // -displayfd: it takes a free display and names it on its output.
        xorg.start("Xorg", {"-config", SCREENREEL_TWO_SCREENS_CONF, "-noreset", "-nolisten", "tcp", "-novtswitch",
                            "-sharevts", "-logfile", dir.filePath("xorg.log"), "-displayfd", "1"});
        QString display;
        for (QDeadlineTimer deadline(30000); display.isEmpty() && xorg.waitForStarted() && !deadline.hasExpired();)
            display = xorg.waitForReadyRead(100) ? xorg.readAllStandardOutput().trimmed() : QString();
        if (display.isEmpty()) {
            xorg.kill();
            xorg.waitForFinished();
            *why = "Xorg cannot start here: " + xorg.errorString() + "\n" + xorg.readAllStandardError().right(2000);
            return false;
        }
        twoHeads.insert("DISPLAY", ":" + display);
        card.setProcessEnvironment(twoHeads);
        card.start(SCREENREEL_SCENE, {"--test-card"});
        QTest::qWait(2000);  // until it shows
        return card.state() == QProcess::Running || (*why = "the test card did not start", false);
    }

    QTemporaryDir dir;
    QProcess xorg, card;
    QProcessEnvironment twoHeads = QProcessEnvironment::systemEnvironment();

private slots:
    void cleanupTestCase()
    {
        for (QProcess* process : {&card, &xorg}) {
            process->terminate();
            process->waitForFinished(15000);  // else its destructor kills it
        }
    }

    void answers_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("says");  // a regular expression
        // The sound server's inputs alone: no ALSA names beside them.
        QTest::newRow("--list") << QStringList{"--list"} << 0
                                << "\n  0: 1920x1080\\+0\\+0\nAudio inputs:\n  0: reel\\.monitor \\(first\\)\n$";
        QTest::newRow("a region too large") << QStringList{"--region", "1921x1080+0+0"} << 1 << "invalid region size";
        QTest::newRow("a region that cannot be read") << QStringList{"--region", "wide"} << 2 << "--region";
        QTest::newRow("an empty region") << QStringList{"--region", "0x0+0+0"} << 2 << "must be above 0";
    }

    // Exit code, message and no file left behind for what is refused before
    // a recording; --list's screens and inputs.
    void answers()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, says);
        QProcess host;
        host.setProcessChannelMode(QProcess::MergedChannels);
        run(host, arguments << "--no-preview" << "-o" << dir.filePath("refused.mp4"));
        QVERIFY(host.waitForFinished(120000));
        const QString out = host.readAll();
        QCOMPARE(host.exitCode(), exitCode);
        QVERIFY2(out.contains(QRegularExpression(says, QRegularExpression::DotMatchesEverythingOption)), qPrintable(out));
        QVERIFY2(!QFile::exists(dir.filePath("refused.mp4")), "a file without a recording");
    }

    void records_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<QString>("signal");  // sent midway; none: --seconds 3 ends it
        QTest::addColumn<QString>("audio");
        QTest::newRow("3 s to a file, no sound") << dir.filePath("silent.mp4") << "" << "none";
        QTest::newRow("3 s into a pipe") << "-" << "" << "reel.monitor";
        QTest::newRow("into a pipe, the host killed midway") << "-" << "KILL" << "reel.monitor";
        // As the Stop button: the file complete, sound and all.
        QTest::newRow("to a file, ended by Ctrl+C") << dir.filePath("interrupted.mp4") << "INT" << "reel.monitor";
        QTest::newRow("into a pipe, ended by SIGTERM") << "-" << "TERM" << "reel.monitor";
    }

    // What a player makes of it: every frame decoded, for a pipe also after
    // the host died; the sound is the test tone and lasts as the picture does.
    void records()
    {
        QFETCH(QString, output);
        QFETCH(QString, signal);
        QFETCH(QString, audio);
        const bool killed = signal == "KILL";
        QProcess host, reader;
        const QString file = output == "-" ? dir.filePath("piped.mp4") : output;
        if (output == "-") {  // a pipe, as into a player
            host.setStandardOutputProcess(&reader);
            reader.setStandardOutputFile(file);
            reader.start("cat", QStringList());
        }
        run(host, {"--audio", audio, "--show-rate", "--seconds", signal.isEmpty() ? "3" : "600", "-o", output});
        QString err;
        if (!signal.isEmpty()) {
            QTRY_VERIFY_WITH_TIMEOUT((err += host.readAllStandardError()).contains("state: started"), 60000);
            QTest::qWait(4000);
            ::kill(pid_t(host.processId()), killed ? SIGKILL : signal == "INT" ? SIGINT : SIGTERM);
        }
        QVERIFY(host.waitForFinished(120000) && (output != "-" || reader.waitForFinished(60000)));
        err += host.readAllStandardError();
        QVERIFY2(killed || (host.exitStatus() == QProcess::NormalExit && host.exitCode() == 0), qPrintable(err));
        QCOMPARE(err.count("state: stopped"), killed ? 0 : 2);
        // Quiet: FFmpeg's banners, dumps and statistics stay out, and so does
        // its warning on the grabber's frame rate.
        for (const QString& line : err.split('\n', Qt::SkipEmptyParts))
            QVERIFY2(line.contains(QRegularExpression("^(state: \\w+|recorded .*)$")), qPrintable(err));

        const MediaProbe probe = MediaProbe::fromFile(file);
        QVERIFY2(probe.isValid() || killed, qPrintable(probe.error));
        const ProbedStream video = probe.streams.value(probe.streamIndex("video"));
        QCOMPARE(QString("%1 %2x%3").arg(video.codec).arg(video.width).arg(video.height), QString("h264 1920x1080"));
        QVERIFY(!probe.decodeVideo().isEmpty());
        // --seconds counts recorded time, so the picture is never shorter than
        // asked. Longer by what the Muxer encodes while the threads end (a
        // frame without sound, a few with it) and, on a busy machine, by the
        // ticks it lost. A sanitized build cannot keep the pace at all.
        const bool paced = qEnvironmentVariableIsEmpty("SCREENREEL_SANITIZED");
        QVERIFY2(!signal.isEmpty() || !paced || (video.duration > 2.999 && video.duration < 4.0), qPrintable(QString::number(video.duration)));
        QCOMPARE(probe.streamIndex("audio") >= 0, audio != "none");
        if (audio == "none" || killed)  // the sound's last fragment went with the host
            return;
        const ProbedStream sound = probe.streams.value(probe.streamIndex("audio"));
        const QVector<float> samples = probe.decodeAudio();
        const QString wrong = checkTone(samples, sound.channels, sound.sampleRate, 440);
        QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
        const double seconds = double(samples.size()) / sound.channels / sound.sampleRate;
        QVERIFY2(qAbs(seconds - video.duration) < 0.3, qPrintable(QString("sound %1 s, picture %2 s").arg(seconds).arg(video.duration)));
    }

    void twoScreens_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("colours");  // of the left half and the right half, as colourLetter names them
        QTest::newRow("the second head") << QStringList{"--screen", "1"} << "BG";
        QTest::newRow("a region of it") << QStringList{"--screen", "1", "--region", "320x240+700+200"} << "GG";
    }

    // Screen 0 shows red and yellow, screen 1 blue and green, by halves.
    void twoScreens()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, colours);
        QString why;
        if (!startTwoScreens(&why))
            QSKIP(qPrintable(why));
        QProcess host;
        host.setProcessEnvironment(twoHeads);
        host.setProcessChannelMode(QProcess::MergedChannels);
        const QString file = dir.filePath("screen1.mp4");
        run(host, arguments << "--no-preview" << "--audio" << "none" << "--seconds" << "1" << "-o" << file);
        QVERIFY(host.waitForFinished(120000));
        QVERIFY2(host.exitCode() == 0, host.readAll().constData());
        // The middle of each half of the first picture.
        const QImage first = MediaProbe::fromFile(file).decodeVideo().value(0);
        const auto at = [&first](int quarter) { return colourLetter(first.pixelColor(first.width() * quarter / 4, first.height() / 2)); };
        QCOMPARE(QString(at(1)) + at(3), colours);
    }
};

QTEST_GUILESS_MAIN(HostTest)
#include "HostTest.moc"
