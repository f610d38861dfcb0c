#include "capture/OpenInput.h"

#include <QLoggingCategory>
#include <QTest>

#include <atomic>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
#include <libavutil/log.h>
}

using namespace orvane;

namespace {

// The out-parameters as a worker's state record holds them, taken apart in
// the worker's order whatever openInput left behind.
struct Opened
{
    ~Opened()
    {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&codecContext);
        avformat_close_input(&formatContext);
        av_dict_free(&options);
    }

    bool open(const char* graph, const QString& name, AVMediaType type)
    {
        return openInput(graph, name, &streamIndex, &options, av_find_input_format("lavfi"),
                         &formatContext, &codec, &codecContext, &packet, &frame, type);
    }

    int streamIndex = -1;
    AVDictionary* options = nullptr;
    AVFormatContext* formatContext = nullptr;
    const AVCodec* codec = nullptr;
    AVCodecContext* codecContext = nullptr;
    AVPacket* packet = nullptr;
    AVFrame* frame = nullptr;
};

std::atomic<int> messages{0};
QtMessageHandler previousHandler = nullptr;
void countMessages(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    messages.fetch_add(1);
    previousHandler(type, context, text);
}

} // namespace

class OpenInputTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void opens_data();
    void opens();
    void failures_data();
    void failures();
    void failureWithWarningsOff();
};

void OpenInputTest::initTestCase()
{
    avdevice_register_all();
    av_log_set_level(AV_LOG_FATAL);
}

void OpenInputTest::opens_data()
{
    QTest::addColumn<QByteArray>("graph");
    QTest::addColumn<int>("mediaType");
    QTest::addColumn<int>("streamIndex");
    QTest::addColumn<int>("width");

    QTest::newRow("video source") << QByteArray("testsrc=size=64x48:rate=25")
                                  << int(AVMEDIA_TYPE_VIDEO) << 0 << 64;
    QTest::newRow("audio source") << QByteArray("sine") << int(AVMEDIA_TYPE_AUDIO) << 0 << 0;
    QTest::newRow("two video outputs: the later one")
        << QByteArray("testsrc=s=32x32[out0];testsrc=s=64x64[out1]") << int(AVMEDIA_TYPE_VIDEO)
        << 1 << 64;
    QTest::newRow("audio behind video: the audio")
        << QByteArray("testsrc=s=32x32[out0];sine[out1]") << int(AVMEDIA_TYPE_AUDIO) << 1 << 0;
    QTest::newRow("video before audio: the video")
        << QByteArray("testsrc=s=32x32[out0];sine[out1]") << int(AVMEDIA_TYPE_VIDEO) << 0 << 32;
}

void OpenInputTest::opens()
{
    QFETCH(QByteArray, graph);
    QFETCH(int, mediaType);
    QFETCH(int, streamIndex);
    QFETCH(int, width);

    Opened in;
    // One option of the format context, one the input does not know.
    av_dict_set(&in.options, "rtbufsize", "1000M", 0);
    av_dict_set(&in.options, "show_region", "1", 0);
    QVERIFY(in.open(graph.constData(), QStringLiteral("Screen"), AVMediaType(mediaType)));

    QCOMPARE(in.streamIndex, streamIndex);
    QVERIFY(in.formatContext);
    QVERIFY(in.codec);
    QVERIFY(in.codecContext);
    QVERIFY(avcodec_is_open(in.codecContext));
    QCOMPARE(int(in.codecContext->codec_type), mediaType);
    QCOMPARE(in.codecContext->width, width);
    QVERIFY(in.packet);
    QVERIFY(in.frame);
    // The input kept what it used and left the rest to the caller.
    QVERIFY(!av_dict_get(in.options, "rtbufsize", nullptr, 0));
    QVERIFY(av_dict_get(in.options, "show_region", nullptr, 0));

    // The decoder delivers: one packet of the chosen stream decodes.
    int result = 0;
    while ((result = av_read_frame(in.formatContext, in.packet)) >= 0
           && in.packet->stream_index != in.streamIndex)
        av_packet_unref(in.packet);
    QCOMPARE(result, 0);
    QCOMPARE(avcodec_send_packet(in.codecContext, in.packet), 0);
    QCOMPARE(avcodec_receive_frame(in.codecContext, in.frame), 0);
    av_packet_unref(in.packet);
}

void OpenInputTest::failures_data()
{
    QTest::addColumn<QByteArray>("graph");
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("mediaType");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("contextLeft");

    QTest::newRow("input cannot be opened")
        << QByteArray("nosuchfilter") << "Screen 1" << int(AVMEDIA_TYPE_VIDEO)
        << "unable to open device [ \"Screen 1\" ]" << false;
    QTest::newRow("audio wanted from a video-only graph")
        << QByteArray("testsrc=size=64x48") << "Microphone (USB)" << int(AVMEDIA_TYPE_AUDIO)
        << "Unable to find video stream for device [ \"Microphone (USB)\" ]" << true;
    QTest::newRow("video wanted from an audio-only graph")
        << QByteArray("sine") << "Screen" << int(AVMEDIA_TYPE_VIDEO)
        << "Unable to find video stream for device [ \"Screen\" ]" << true;
}

void OpenInputTest::failures()
{
    QFETCH(QByteArray, graph);
    QFETCH(QString, name);
    QFETCH(int, mediaType);
    QFETCH(QString, message);
    QFETCH(bool, contextLeft);

    Opened in;
    QTest::ignoreMessage(QtWarningMsg, qPrintable(message));
    QVERIFY(!in.open(graph.constData(), name, AVMediaType(mediaType)));
    // What was made stays for the owner; no decoder was looked up.
    QCOMPARE(in.formatContext != nullptr, contextLeft);
    QCOMPARE(in.streamIndex, -1);
    QVERIFY(!in.codec);
    QVERIFY(!in.codecContext);
    QVERIFY(!in.packet);
    QVERIFY(!in.frame);
}

void OpenInputTest::failureWithWarningsOff()
{
    QLoggingCategory::setFilterRules(QStringLiteral("screenreel.warning=false"));
    previousHandler = qInstallMessageHandler(countMessages);
    bool opened = true;
    {
        Opened in;
        opened = in.open("nosuchfilter", QStringLiteral("Screen"), AVMEDIA_TYPE_VIDEO);
    }
    qInstallMessageHandler(previousHandler);
    QLoggingCategory::setFilterRules(QString());
    QVERIFY(!opened);
    QCOMPARE(messages.load(), 0);
}

QTEST_GUILESS_MAIN(OpenInputTest)

#include "OpenInputTest.moc"
