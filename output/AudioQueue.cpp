#include "AudioQueue.h"

#include "pipeline/Logging.h"

namespace orvane {

AudioQueue::AudioQueue(int sampleRate)
    : limit(qint64(maxSeconds) * sampleRate)
{
}

void AudioQueue::append(const AudioChunk& chunk)
{
    chunks.append(chunk);
    queued += chunk.sampleCount;
    if (queued > limit && chunks.size() > 1) {
        if (!full)
            qCWarning(lcScreenReel) << "audio queue full, dropping the oldest samples";
        full = true;
        while (queued > limit && chunks.size() > 1)
            queued -= chunks.takeFirst().sampleCount;
    } else if (queued <= limit / 2) {
        full = false;
    }
}

bool AudioQueue::take(AudioChunk* chunk)
{
    if (chunks.isEmpty())
        return false;
    *chunk = chunks.takeFirst();
    queued -= chunk->sampleCount;
    return true;
}

} // namespace orvane
