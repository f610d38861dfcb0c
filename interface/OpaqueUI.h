#pragma once

#include <QtPlugin>

class QLayout;

namespace orvane::plugin::interface {

// The host-side view of a plug-in that can place a widget of its own into
// one of the host's layouts.
class OpaqueUI
{
public:
    virtual ~OpaqueUI() = default;

    // GUI thread. `layout` must not be null.
    virtual void createView(QLayout* layout, bool showRate) = 0;
};

} // namespace orvane::plugin::interface

#define OpaqueUI_iid "com.orvane.opaqueui"
Q_DECLARE_INTERFACE(orvane::plugin::interface::OpaqueUI, OpaqueUI_iid)
