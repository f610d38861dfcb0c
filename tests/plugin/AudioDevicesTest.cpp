// Audio inputs and the change watch, beside a private PulseAudio daemon whose
// null sink "reel" gives the input "reel.monitor".
#include "plugin/Plugin.h"
#include "plugin/SpyEvents.h"

#include <QAudioDeviceInfo>
#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QWidget>
#include <QWindow>
#include <QtTest>

using orvane::Plugin;
using orvane::plugin::interface::AudioDevice;
using orvane::plugin::interface::ScreenReel;

namespace {

QStringList entries(const std::vector<AudioDevice>& devices)
{
    QStringList list;
    for (const AudioDevice& device : devices)
        list << QStringLiteral("%1:%2:%3").arg(QString(device.id), device.name, device.first ? "first" : "-");
    return list;
}

// Adds a null sink, and so the input "<name>.monitor", to the test's daemon.
bool addSink(const QString& name)
{
    QProcess pactl;
    pactl.start("pactl", {"load-module", "module-null-sink", "sink_name=" + name});
    return pactl.waitForFinished(30000) && pactl.exitStatus() == QProcess::NormalExit
        && pactl.exitCode() == 0;
}

} // namespace

class AudioDevicesTest : public QObject
{
    Q_OBJECT

private slots:
    // First: nothing in this process has listed the inputs yet.
    void pollWaitsForFirstListing();
    void listing();
    void listingRule_data();
    void listingRule();
    void filter_data();
    void filter();
    void burstGivesOneSignal();
    void childWidgetShownDoesNotCount();
};

void AudioDevicesTest::pollWaitsForFirstListing()
{
    Plugin plugin;
    QSignalSpy changed(&plugin, &ScreenReel::deviceChanged);

    // Before the host has listed the inputs a new one goes unnoticed.
    QVERIFY(addSink("early"));
    QVERIFY2(!changed.wait(7000), "the poll ran before the first listing");

    QVERIFY(entries(plugin.audioDevices()).join(' ').contains("early.monitor"));
    QVERIFY(addSink("second"));
    QVERIFY2(changed.wait(15000), "the poll missed a new input");

    // Until the host lists again the signal comes back at every poll.
    QVERIFY2(changed.wait(15000), "the poll did not repeat");
    const std::vector<AudioDevice> devices = plugin.audioDevices();
    QVERIFY(entries(devices).join(' ').contains("second.monitor"));
    QTest::qWait(1000);  // an arming from just before the listing
    changed.clear();
    QVERIFY2(!changed.wait(7000), "the poll goes on after the host listed again");
}

void AudioDevicesTest::listing()
{
    Plugin plugin;
    const std::vector<AudioDevice> devices = plugin.audioDevices();
    const QList<QAudioDeviceInfo> system = QAudioDeviceInfo::availableDevices(QAudio::AudioInput);
    QVERIFY(!devices.empty());

    QStringList names;
    for (size_t i = 0; i < devices.size(); ++i) {
        const AudioDevice& device = devices[i];
        QCOMPARE(device.first, i == 0);
        QVERIFY2(!names.contains(device.name), qPrintable(device.name));
        names << device.name;
        // The id is the device's place in the system's list.
        bool ok = false;
        const int place = device.id.toInt(&ok);
        QVERIFY2(ok && place >= 0 && place < system.size(), device.id.constData());
        QCOMPARE(system.at(place).deviceName(), device.name);
    }
    QVERIFY2(names.contains("reel.monitor"), qPrintable(names.join(", ")));
}

void AudioDevicesTest::listingRule_data()
{
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("no device") << QStringList{} << QStringList{};
    QTest::newRow("one device is first") << QStringList{"reel.monitor"} << QStringList{"0:reel.monitor:first"};
    QTest::newRow("same name twice leaves a gap in the ids")
        << QStringList{"mic", "mic", "line"} << QStringList{"0:mic:first", "2:line:-"};
    QTest::newRow("first of a name keeps its place")
        << QStringList{"a", "b", "a", "c"} << QStringList{"0:a:first", "1:b:-", "3:c:-"};
    QTest::newRow("names differ by case") << QStringList{"Mic", "mic"} << QStringList{"0:Mic:first", "1:mic:-"};
    QTest::newRow("no sound server: one unnamed device")
        << QStringList{"", ""} << QStringList{"0::first"};
}

void AudioDevicesTest::listingRule()
{
    QFETCH(QStringList, names);
    QFETCH(QStringList, expected);
    QCOMPARE(entries(orvane::audioDeviceList(names)), expected);
}

void AudioDevicesTest::filter_data()
{
    QTest::addColumn<QString>("object");
    QTest::addColumn<int>("type");
    QTest::addColumn<bool>("counts");

    QTest::newRow("window shown") << "window" << int(QEvent::Show) << true;
    QTest::newRow("widget shown") << "widget" << int(QEvent::Show) << false;
    QTest::newRow("plain object shown") << "object" << int(QEvent::Show) << false;
    QTest::newRow("shown, no object") << "null" << int(QEvent::Show) << false;
    QTest::newRow("window hidden") << "window" << int(QEvent::Hide) << false;
    QTest::newRow("window closed") << "window" << int(QEvent::Close) << false;
    QTest::newRow("screen change of a window") << "window" << int(QEvent::ScreenChangeInternal) << true;
    QTest::newRow("screen change of a plain object") << "object" << int(QEvent::ScreenChangeInternal) << true;
    QTest::newRow("screen change, no object") << "null" << int(QEvent::ScreenChangeInternal) << true;
}

void AudioDevicesTest::filter()
{
    QFETCH(QString, object);
    QFETCH(int, type);
    QFETCH(bool, counts);

    QWindow window;
    QWidget widget;
    QObject plain;
    QObject* watched = object == "window" ? static_cast<QObject*>(&window)
                     : object == "widget" ? static_cast<QObject*>(&widget)
                     : object == "object" ? &plain
                                          : nullptr;
    orvane::SpyEvents spy;
    QSignalSpy modified(&spy, &orvane::SpyEvents::modified);
    QEvent event{QEvent::Type(type)};
    QVERIFY2(!spy.eventFilter(watched, &event), "the filter swallowed an event");
    QCOMPARE(modified.count(), counts ? 1 : 0);
}

void AudioDevicesTest::burstGivesOneSignal()
{
    Plugin plugin;
    QElapsedTimer clock;
    QList<qint64> signalled;
    connect(&plugin, &ScreenReel::deviceChanged, this, [&] { signalled << clock.elapsed(); });

    // Gaps under the 500 ms of the debounce, but more than 500 ms in all.
    QWindow window;
    QList<qint64> triggered;
    clock.start();
    for (int i = 0; i < 4; ++i) {
        if (i > 0)
            QTest::qWait(200);
        QShowEvent show;
        QCoreApplication::sendEvent(&window, &show);
        triggered << clock.elapsed();
        if (triggered.size() > 1 && triggered.last() - triggered.at(triggered.size() - 2) > 450)
            QSKIP("the machine is too busy to keep the triggers of a burst close together");
    }
    QVERIFY2(signalled.isEmpty(), "signalled while the burst went on");

    QTRY_COMPARE_WITH_TIMEOUT(signalled.size(), 1, 10000);
    // The timer is a coarse one: it may fire a little early.
    QVERIFY2(signalled.first() - triggered.last() >= 450,
             qPrintable(QStringLiteral("signalled %1 ms after the last trigger")
                            .arg(signalled.first() - triggered.last())));
    QTest::qWait(1500);
    QCOMPARE(signalled.size(), 1);
}

void AudioDevicesTest::childWidgetShownDoesNotCount()
{
    Plugin plugin;
    QSignalSpy changed(&plugin, &ScreenReel::deviceChanged);

    // A top-level widget counts through the window that carries it.
    QWidget top;
    auto* child = new QWidget(&top);
    child->hide();
    top.show();
    QVERIFY(QTest::qWaitForWindowExposed(&top));
    QVERIFY(changed.wait(10000));

    changed.clear();
    child->show();
    QVERIFY(child->isVisible());
    QVERIFY2(!changed.wait(2000), "a widget without a window of its own armed the watch");
}

QTEST_MAIN(AudioDevicesTest)
#include "AudioDevicesTest.moc"
