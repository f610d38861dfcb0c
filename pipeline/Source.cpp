#include "Source.h"

#include "Pipeline.h"
#include "preview/BufferView.h"

#include <QImage>

namespace orvane {

Source::Source(Pipeline* pipeline)
    : PipelinePart(pipeline)
{
}

AudioFormat Source::audioFormat()
{
    return {};
}

QSize Source::videoSize()
{
    return QSize(0, 0);
}

void Source::pushImage(const QImage& image, CaptureTime captured)
{
    pipeline->target->writeVideo(image, captured);
    if (pipeline->preview)
        pipeline->preview->setImage(image);
}

void Source::pushAudio(const QByteArray& samples, qint64 sampleCount, CaptureTime captured)
{
    pipeline->target->writeAudio(samples, sampleCount, captured);
}

} // namespace orvane
