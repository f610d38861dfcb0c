// Screens as the host sees them: one record per titled top-level window, on a
// real X display. Run a second time with QT_SCALE_FACTOR=1.5, where Qt's
// screen is 1280x720 at ratio 1.5 and the record must still give the native
// 1920x1080.
#include "plugin/Plugin.h"

#include <QGuiApplication>
#include <QScreen>
#include <QWindow>
#include <QtTest>

#include <memory>
#include <vector>

using orvane::plugin::interface::VideoDevice;

namespace {

QByteArray idOf(const QWindow* window)
{
    return QByteArray("{0x") + QByteArray::number(quint64(quintptr(window)), 16).rightJustified(16, '0') + '}';
}

} // namespace

class VideoDevicesTest : public QObject
{
    Q_OBJECT

private slots:
    void screenSetUp();
    void titledWindowsListed();
    void idStableWhileWindowLives();

private:
    orvane::Plugin plugin;
};

void VideoDevicesTest::screenSetUp()
{
    // What the harness gives: one 1920x1080 X screen, scaled or not.
    QScreen* screen = QGuiApplication::primaryScreen();
    QVERIFY(screen);
    QCOMPARE(QGuiApplication::screens().size(), 1);
    const double ratio = qEnvironmentVariableIsSet("QT_SCALE_FACTOR")
                             ? qEnvironmentVariable("QT_SCALE_FACTOR").toDouble()
                             : 1.0;
    QCOMPARE(screen->devicePixelRatio(), ratio);
    QCOMPARE(screen->geometry(), QRect(0, 0, int(1920 / ratio), int(1080 / ratio)));
}

void VideoDevicesTest::titledWindowsListed()
{
    QVERIFY(plugin.videoDevices().empty());

    std::vector<std::unique_ptr<QWindow>> windows;
    const auto make = [&](const QString& title, bool show) {
        windows.push_back(std::make_unique<QWindow>());
        windows.back()->setTitle(title);
        windows.back()->resize(320, 200);
        if (show)
            windows.back()->show();
        return windows.back().get();
    };
    QWindow* shown = make("Shown", true);
    make("", true);
    QWindow* hidden = make("Hidden", false);
    QWindow* twinA = make("Twin", true);
    QWindow* twinB = make("Twin", false);
    twinA->setPosition(700, 500);  // where the window is doesn't matter
    QVERIFY(QTest::qWaitForWindowExposed(shown));

    const std::vector<VideoDevice> devices = plugin.videoDevices();
    const std::vector<QWindow*> expected{shown, hidden, twinA, twinB};
    QCOMPARE(devices.size(), expected.size());
    for (size_t i = 0; i < devices.size(); ++i) {
        const VideoDevice& device = devices[i];
        QWindow* window = expected[i];
        QCOMPARE(device.window, window);
        QCOMPARE(device.id, idOf(window));
        QCOMPARE(device.id.size(), 20);
        QCOMPARE(device.screen, QByteArray("0"));
        QCOMPARE(device.name, window->title());
        // The screen's rectangle in native pixels, not the window's.
        QCOMPARE(device.geometry, QRectF(0, 0, 1920, 1080));
    }
}

void VideoDevicesTest::idStableWhileWindowLives()
{
    QWindow window;
    window.setTitle("Kept");
    const auto idNow = [&]() -> QByteArray {
        for (const VideoDevice& device : plugin.videoDevices())
            if (device.window == &window)
                return device.id;
        return {};
    };
    const QByteArray before = idNow();
    QVERIFY(!before.isEmpty());
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    window.setTitle("Renamed");
    QCOMPARE(idNow(), before);
}

QTEST_MAIN(VideoDevicesTest)
#include "VideoDevicesTest.moc"
