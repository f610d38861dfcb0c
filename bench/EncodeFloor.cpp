// The encoder's share of a recording's cost: decodes the first seconds of a
// recording into memory, then encodes them again with the recorder's video
// constants (the first H.264 encoder, preset ultrafast, 1800 kb/s, GOP 10,
// time base 1/25, YUV420P, global header, sliced threads, nothing else set) and prints the
// CPU seconds (all threads, user + system) the encoding alone took per
// second of video. Nothing a recorder does besides encoding costs less.
//
//   encode-floor FILE [SECONDS]
//
// Prints "frames cpu_seconds cpu_per_video_second".

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

double cpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Everything of the run; one teardown frees whatever is there.
struct Run
{
    ~Run()
    {
        for (AVFrame*& frame : frames)
            av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&decoder);
        avcodec_free_context(&encoder);
        avformat_close_input(&input);
    }
    AVFormatContext* input = nullptr;
    AVCodecContext* decoder = nullptr;
    AVCodecContext* encoder = nullptr;
    AVPacket* packet = nullptr;
    std::vector<AVFrame*> frames;
};

int fail(const char* what)
{
    std::fprintf(stderr, "encode-floor: %s\n", what);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
        return fail("usage: encode-floor FILE [SECONDS]");
    const double seconds = argc > 2 ? std::atof(argv[2]) : 10.0;
    const size_t wanted = size_t(seconds * 25);
    Run run;
    if (avformat_open_input(&run.input, argv[1], nullptr, nullptr) < 0 ||
        avformat_find_stream_info(run.input, nullptr) < 0)
        return fail("cannot open the file");
    const AVCodec* decoderCodec = nullptr;
    const int stream = av_find_best_stream(run.input, AVMEDIA_TYPE_VIDEO, -1, -1, &decoderCodec, 0);
    if (stream < 0 || !(run.decoder = avcodec_alloc_context3(decoderCodec)) ||
        avcodec_parameters_to_context(run.decoder, run.input->streams[stream]->codecpar) < 0 ||
        avcodec_open2(run.decoder, decoderCodec, nullptr) < 0)
        return fail("cannot decode the file");
    run.packet = av_packet_alloc();

    // Into memory first: the encoding is timed alone.
    const auto receive = [&run, wanted] {
        for (;;) {
            AVFrame* frame = av_frame_alloc();
            if (avcodec_receive_frame(run.decoder, frame) < 0) {
                av_frame_free(&frame);
                return;
            }
            if (run.frames.size() < wanted)
                run.frames.push_back(frame);
            else
                av_frame_free(&frame);
        }
    };
    while (run.frames.size() < wanted && av_read_frame(run.input, run.packet) >= 0) {
        if (run.packet->stream_index == stream)
            avcodec_send_packet(run.decoder, run.packet);
        av_packet_unref(run.packet);
        receive();
    }
    avcodec_send_packet(run.decoder, nullptr);
    receive();
    if (run.frames.empty() || run.frames.front()->format != AV_PIX_FMT_YUV420P)
        return fail("no YUV420P frames in the file");

    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_H264);
    if (!codec || !(run.encoder = avcodec_alloc_context3(codec)))
        return fail("no H.264 encoder");
    AVCodecContext* c = run.encoder;
    c->bit_rate = 1800000;
    c->width = run.frames.front()->width;
    c->height = run.frames.front()->height;
    c->time_base = AVRational{1, 25};
    c->gop_size = 10;
    c->pix_fmt = AV_PIX_FMT_YUV420P;
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    av_opt_set(c->priv_data, "preset", "ultrafast", 0);
    av_opt_set(c->priv_data, "x264-params", "sliced-threads=1", 0);

    const double start = cpuSeconds();
    if (avcodec_open2(c, codec, nullptr) < 0)
        return fail("cannot open the encoder");
    int64_t pts = 0;
    const auto drain = [&run] {
        while (avcodec_receive_packet(run.encoder, run.packet) >= 0)
            av_packet_unref(run.packet);
    };
    for (AVFrame* frame : run.frames) {
        frame->pts = ++pts;
        frame->pict_type = AV_PICTURE_TYPE_NONE;
        if (avcodec_send_frame(c, frame) < 0)
            return fail("the encoder refused a frame");
        drain();
    }
    avcodec_send_frame(c, nullptr);
    drain();
    const double spent = cpuSeconds() - start;
    const double videoSeconds = double(run.frames.size()) / 25.0;
    std::printf("%zu %.3f %.4f\n", run.frames.size(), spent, spent / videoSeconds);
    return 0;
}
