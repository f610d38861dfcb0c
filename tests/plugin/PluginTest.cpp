// The plug-in as a host meets it: the module loaded by path, its metadata
// block, the single instance and the casts by name and IID.
#include "interface/OpaqueUI.h"
#include "interface/ScreenReel.h"
#include "plugin/Plugin.h"

#include <QHBoxLayout>
#include <QLibrary>
#include <QPluginLoader>
#include <QPointer>
#include <QSignalSpy>
#include <QWindow>
#include <QtTest>

#include <cstring>

using orvane::plugin::interface::OpaqueUI;
using orvane::plugin::interface::ScreenReel;

class PluginTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void metadataBlock();
    void loaderSeesInterfaces();
    void singleInstance();
    void metacast_data();
    void metacast();
    void createViewOnce();

private:
    using InstanceFunction = QObject* (*)();
    using MetadataFunction = const char* (*)();

    QString path;
    QLibrary library;
    InstanceFunction instance = nullptr;
    MetadataFunction queryMetadata = nullptr;
};

void PluginTest::initTestCase()
{
    path = qEnvironmentVariable("SCREENREEL_PLUGIN");
    QVERIFY2(!path.isEmpty(), "SCREENREEL_PLUGIN names no module");
    library.setFileName(path);
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    queryMetadata = reinterpret_cast<MetadataFunction>(library.resolve("qt_plugin_query_metadata"));
    instance = reinterpret_cast<InstanceFunction>(library.resolve("qt_plugin_instance"));
    QVERIFY(queryMetadata);
    QVERIFY(instance);
}

void PluginTest::metadataBlock()
{
    // Asked before any instance exists.
    QByteArray expected("QTMETADATA !");
    expected += QByteArray::fromHex("00050f00");       // format 0, Qt 5.15, release
    expected += QByteArray::fromHex("bf02");           // map; key IID
    expected += char(0x60 + 21) + QByteArray("com.orvane.ScreenReel");
    expected += char(0x03);                            // key class name
    expected += char(0x60 + 6) + QByteArray("Plugin");
    expected += char(0xff);                            // end of map
    QCOMPARE(expected.size(), 49);

    const char* block = queryMetadata();
    QVERIFY(block);
    QCOMPARE(QByteArray(block, expected.size()).toHex(' '), expected.toHex(' '));
    QCOMPARE(queryMetadata(), block);
}

void PluginTest::loaderSeesInterfaces()
{
    QPluginLoader loader(path);
    const QJsonObject meta = loader.metaData();
    QCOMPARE(meta.value("IID").toString(), QStringLiteral("com.orvane.ScreenReel"));
    QCOMPARE(meta.value("className").toString(), QStringLiteral("Plugin"));
    QCOMPARE(meta.value("debug").toBool(), false);
    QVERIFY(!meta.contains("MetaData"));

    QObject* object = loader.instance();
    QVERIFY2(object, qPrintable(loader.errorString()));
    QCOMPARE(object, instance());
    QVERIFY(qobject_cast<ScreenReel*>(object));
    QVERIFY(qobject_cast<OpaqueUI*>(object));
}

void PluginTest::singleInstance()
{
    QPointer<QObject> first = instance();
    QVERIFY(first);
    QCOMPARE(instance(), first.data());

    delete first.data();
    QVERIFY(first.isNull());

    // The new object is fully built: its change watch notices a window.
    QObject* second = instance();
    QVERIFY(second);
    QCOMPARE(instance(), second);
    auto* reel = qobject_cast<ScreenReel*>(second);
    QVERIFY(reel);
    QSignalSpy changed(reel, &ScreenReel::deviceChanged);
    QWindow window;
    window.show();
    QVERIFY(changed.wait(10000));
}

void PluginTest::metacast_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QString>("answer");

    QTest::newRow("class name gives the first base") << QByteArray("orvane::Plugin") << "first";
    QTest::newRow("first IID gives the first base") << QByteArray("com.orvane.ScreenReel") << "first";
    QTest::newRow("OpaqueUI gives the second base") << QByteArray("OpaqueUI") << "second";
    QTest::newRow("second IID gives the second base") << QByteArray("com.orvane.opaqueui") << "second";
    QTest::newRow("interface class answers for itself")
        << QByteArray("orvane::plugin::interface::ScreenReel") << "first";
    QTest::newRow("QObject is answered by the base") << QByteArray("QObject") << "first";
    QTest::newRow("IID in other case is unknown") << QByteArray("com.orvane.screenreel") << "null";
    QTest::newRow("unknown name") << QByteArray("orvane::Pipeline") << "null";
    QTest::newRow("null name") << QByteArray() << "null";
}

void PluginTest::metacast()
{
    QFETCH(QByteArray, name);
    QFETCH(QString, answer);

    QObject* object = instance();
    // The module's Plugin is laid out as the one compiled into this test.
    auto* plugin = static_cast<orvane::Plugin*>(object);
    void* first = static_cast<ScreenReel*>(plugin);
    void* second = static_cast<OpaqueUI*>(plugin);
    QVERIFY(first != second);

    void* expected = answer == "first" ? first : answer == "second" ? second : nullptr;
    QCOMPARE(object->qt_metacast(name.isNull() ? nullptr : name.constData()), expected);
}

void PluginTest::createViewOnce()
{
    auto* ui = qobject_cast<OpaqueUI*>(instance());
    QVERIFY(ui);
    QWidget host;
    auto* layout = new QHBoxLayout(&host);
    auto* other = new QHBoxLayout;
    layout->addLayout(other);

    ui->createView(layout, false);
    QCOMPARE(layout->count(), 2);
    QPointer<QWidget> view = layout->itemAt(1)->widget();
    QVERIFY(view);
    QCOMPARE(view->parentWidget(), &host);

    // Another layout and another flag change nothing.
    ui->createView(other, true);
    QCOMPARE(other->count(), 0);
    QCOMPARE(layout->count(), 2);

    // Destroyed by its host, the next call builds a new one.
    delete view.data();
    QCOMPARE(layout->count(), 1);
    ui->createView(other, true);
    QCOMPARE(other->count(), 1);
    QVERIFY(other->itemAt(0)->widget());

    // The Plugin owns the widget too: deleting the Plugin takes it along.
    QPointer<QWidget> second = other->itemAt(0)->widget();
    delete instance();
    QVERIFY(second.isNull());
}

QTEST_MAIN(PluginTest)
#include "PluginTest.moc"
