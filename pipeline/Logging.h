#pragma once

#include <QLoggingCategory>

namespace orvane {

// The one category of the plug-in: "screenreel", warnings and above on by
// default. Messages carry no file, line or function (QT_NO_MESSAGELOGCONTEXT
// is defined for the whole build), so qCWarning(lcScreenReel) gives exactly
// the logger the log lines are written with.
Q_DECLARE_LOGGING_CATEGORY(lcScreenReel)

} // namespace orvane
