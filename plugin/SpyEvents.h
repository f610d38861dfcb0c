#pragma once

#include <QObject>

namespace orvane {

// Application-wide event filter that notices when a window is shown or a
// window changes screen. It only reports; every event goes on unchanged.
class SpyEvents : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    bool eventFilter(QObject* watched, QEvent* event) override;

signals:
    void modified();
};

} // namespace orvane
