#include "SpyEvents.h"

#include <QEvent>

namespace orvane {

bool SpyEvents::eventFilter(QObject* watched, QEvent* event)
{
    // Runs for every event of the application: two comparisons on the way out.
    if (event->type() == QEvent::Show) {
        if (watched && watched->isWindowType())
            emit modified();
    } else if (event->type() == QEvent::ScreenChangeInternal) {
        emit modified();
    }
    return QObject::eventFilter(watched, event);
}

} // namespace orvane
