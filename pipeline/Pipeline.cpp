#include "Pipeline.h"

#include "preview/BufferView.h"

extern "C" {
#include <libavdevice/avdevice.h>
}

namespace orvane {

Pipeline::Pipeline(BufferView* view, QObject* parent)
    : QObject(parent)
    , preview(view ? view->feed() : nullptr)
{
    // The capture inputs are found by name; the registry must be filled
    // before any worker opens one.
    avdevice_register_all();
    startTimer(100, Qt::CoarseTimer);
}

Pipeline::~Pipeline()
{
    // A worker that called abort could not wait for itself and may still be
    // leaving its run(); it is joined here before its thread object goes.
    stopParts();
    emit stopedChanged();
    video.reset();
    audio.reset();
    target.reset();
}

bool Pipeline::start()
{
    emit startedChanged();
    if (target->start() && video->start() && (!audio || audio->start()))
        return true;
    stopParts();
    emit stopedChanged();
    return false;
}

void Pipeline::stop()
{
    stopParts();
    emit stopedChanged();
}

void Pipeline::abort()
{
    if (aborting.exchange(true))
        return;
    stopParts();
    emit stopedChanged();
}

void Pipeline::stopParts()
{
    // An owner that gave up while filling it leaves parts out.
    if (video)
        video->stop();
    if (audio)
        audio->stop();
    if (target)
        target->stop();
}

std::chrono::milliseconds Pipeline::recordedTime()
{
    return target ? target->recordedTime() : std::chrono::milliseconds(0);
}

void Pipeline::timerEvent(QTimerEvent*)
{
    if (target)
        emit recorded(target->recordedTime());
}

} // namespace orvane
