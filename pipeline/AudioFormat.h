#pragma once

#include <cstdint>

extern "C" {
#include <libavutil/samplefmt.h>
}

namespace orvane {

// Format of the samples an audio Source delivers, as its decoder reports it.
// All zero when the source failed to open.
struct AudioFormat
{
    AVSampleFormat sampleFormat = AVSampleFormat(0);
    int32_t sampleRate = 0;
    int32_t channels = 0;
    uint64_t channelLayout = 0;  // FFmpeg channel mask; informational

    bool operator==(const AudioFormat& other) const
    {
        return sampleFormat == other.sampleFormat && sampleRate == other.sampleRate
            && channels == other.channels && channelLayout == other.channelLayout;
    }
};

// How samples lie in memory: a plane per channel in a planar format, else
// one plane of interleaved channels; `sampleBytes` of one sample in a plane.
struct SampleLayout
{
    int planes;
    int sampleBytes;
};

inline SampleLayout sampleLayout(AVSampleFormat format, int channels)
{
    const bool planar = av_sample_fmt_is_planar(format);
    return {planar ? channels : 1, av_get_bytes_per_sample(format) * (planar ? 1 : channels)};
}

} // namespace orvane
