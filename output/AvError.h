#pragma once

#include <QString>

namespace orvane {

// FFmpeg's text for a result code, as the output side logs it.
QString avErrorText(int code);

} // namespace orvane
