// The screens and audio inputs the plug-in lists. Runs on an X display
// beside a sound server; `videoDevices` also with Qt scaling 1.5.
#include "plugin/Plugin.h"
#include "support/MediaProbe.h"

#include <QScreen>
#include <QWindow>
#include <QtTest>

using namespace orvane;
using namespace orvane::test;
using plugin::interface::ScreenReel;

class PluginTest : public QObject
{
    Q_OBJECT

private slots:
    // Titled windows, shown or not, each for its screen in device pixels;
    // untitled ones left out.
    void videoDevices()
    {
        QCOMPARE(QGuiApplication::primaryScreen()->devicePixelRatio(), qEnvironmentVariable("QT_SCALE_FACTOR", "1").toDouble());
        QWindow untitled;  // not listed
        untitled.show();
        std::vector<std::unique_ptr<QWindow>> windows;
        for (const char* title : {"Shown", "Hidden", "Twin", "Twin"}) {
            windows.push_back(std::make_unique<QWindow>());
            windows.back()->setTitle(title);
            windows.back()->resize(320, 200);
            windows.back()->setVisible(qstrcmp(title, "Hidden") != 0);
        }
        QVERIFY(QTest::qWaitForWindowExposed(&untitled));
        const auto devices = Plugin().videoDevices();
        QCOMPARE(devices.size(), windows.size());
        for (size_t i = 0; i < devices.size(); ++i) {
            QCOMPARE(devices[i].window, windows[i].get());
            QCOMPARE(devices[i].id, QByteArray::number(quintptr(windows[i].get()), 16).rightJustified(16, '0').prepend("{0x") + '}');
            QCOMPARE(devices[i].name, windows[i]->title());
            // The screen's rectangle: its size in native pixels, its origin as Qt has it.
            QCOMPARE(devices[i].geometry, QRectF(0, 0, 1920, 1080));
        }
    }

    // Duplicate names left out with their ids, the sound server's inputs
    // alone, and the poll that sees a new one.
    void audioDevices()
    {
        QStringList listed;
        for (const auto& d : audioDeviceList({"mic", "line", "mic", "usb", "Usb"}))
            listed << QString(d.id) + ':' + d.name + (d.first ? "*" : "");
        // A name seen before is left out, and its id with it; names differ by case.
        QCOMPARE(listed.join(' '), QString("0:mic* 1:line 3:usb 4:Usb"));
        QCOMPARE(audioDeviceList({"", ""}).size(), size_t(1));  // no sound server: one unnamed device
        QVERIFY(audioDeviceList({}).empty());

        // The 5 s poll runs once the host has listed, and sees a new input.
        Plugin plugin;
        QSignalSpy changed(&plugin, &ScreenReel::deviceChanged);
        // The sound server's inputs alone, its default first; not the ALSA names beside them.
        QStringList names, sources;
        for (const auto& d : plugin.audioDevices())
            names << d.name;
        for (const QString& line : pactl({"list", "short", "sources"}).split('\n', Qt::SkipEmptyParts))
            sources << line.section('\t', 1, 1);
        QCOMPARE(names.value(0), QString("reel.monitor"));
        names.sort();
        sources.sort();
        QCOMPARE(names, sources);
        QVERIFY(!pactl({"load-module", "module-null-sink", "sink_name=late"}).isEmpty());
        QVERIFY2(changed.wait(30000), "the poll missed a new input");
    }
};

QTEST_MAIN(PluginTest)
#include "PluginTest.moc"
