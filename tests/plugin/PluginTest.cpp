// The plug-in as a host meets it: the module's metadata and casts, the screens and audio inputs it lists, and its change watch. Runs on
// an X display beside a sound server; `videoDevices` also with Qt scaling 1.5.
#include "plugin/Plugin.h"
#include "plugin/SpyEvents.h"
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
    QLibrary library{qEnvironmentVariable("SCREENREEL_PLUGIN")};
    QObject* instance() { return reinterpret_cast<QObject* (*)()>(library.resolve("qt_plugin_instance"))(); }

private slots:
    void initTestCase() { QVERIFY2(library.load(), qPrintable(library.errorString())); }

    // What a host reads of the module: the metadata (asked before there is an
    // instance: format 0, Qt 5.15, release; a map of the IID and the class
    // name), then the two interfaces by their IIDs, which differ by case, and
    // the UI by the class name the host knows.
    void identity()
    {
        const auto query = reinterpret_cast<const char* (*)()>(library.resolve("qt_plugin_query_metadata"));
        const QByteArray expected = "QTMETADATA !" + QByteArray::fromHex("00050f00bf0275") + "com.orvane.ScreenReel"
                                    + QByteArray::fromHex("0366") + "Plugin" + QByteArray::fromHex("ff");
        QCOMPARE(QByteArray(query(), expected.size()).toHex(' '), expected.toHex(' '));
        auto* plugin = static_cast<Plugin*>(instance());  // laid out as the one built into this test
        void* const first = static_cast<ScreenReel*>(plugin);
        void* const second = static_cast<OpaqueUI*>(plugin);
        const std::pair<const char*, void*> answers[] = {{"com.orvane.ScreenReel", first}, {"OpaqueUI", second},
                                                          {"com.orvane.opaqueui", second}, {"com.orvane.screenreel", nullptr}};
        for (const auto& [name, base] : answers)
            QVERIFY2(plugin->qt_metacast(name) == base, name);
    }

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
            QCOMPARE(devices[i].screen, QByteArray("0"));
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
        const auto inputs = plugin.audioDevices();
        // The sound server's inputs alone, its default first; not the ALSA names beside them.
        QStringList names, sources;
        for (const auto& d : inputs)
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

    // A window shown, or moved to another screen, changes what is listed.
    void watchedEvents()
    {
        QWindow window;
        SpyEvents spy;
        QSignalSpy modified(&spy, &SpyEvents::modified);
        const auto counted = [&](QObject* object, QEvent::Type type) {  // -1: the event was swallowed
            QEvent event(type);
            const int before = modified.count();
            return spy.eventFilter(object, &event) ? -1 : modified.count() - before;
        };
        QCOMPARE(counted(&window, QEvent::Show), 1);
        QCOMPARE(counted(&window, QEvent::Hide), 0);
        QCOMPARE(counted(nullptr, QEvent::ScreenChangeInternal), 1);
    }

    void burstGivesOneSignal()
    {
        Plugin plugin;
        QSignalSpy changed(&plugin, &ScreenReel::deviceChanged);
        QWindow window;
        QElapsedTimer sinceLast;
        for (int i = 0; i < 4; ++i) {  // 200 ms apart: more than the 500 ms of the debounce in all
            QTest::qWait(200);
            if (i > 0 && sinceLast.elapsed() > 450)
                QSKIP("too busy to keep a burst together");
            QShowEvent show;
            QCoreApplication::sendEvent(&window, &show);
            sinceLast.start();
        }
        QVERIFY(changed.isEmpty());
        QVERIFY(changed.wait(10000));
        QVERIFY2(sinceLast.elapsed() >= 450, "signalled before the burst was over");
        QVERIFY(!changed.wait(1500));
    }
};

QTEST_MAIN(PluginTest)
#include "PluginTest.moc"
