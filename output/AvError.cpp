#include "AvError.h"

extern "C" {
#include <libavutil/error.h>
}

namespace orvane {

QString avErrorText(int code)
{
    char text[64] = {};
    av_strerror(code, text, sizeof text);
    return QString::fromLocal8Bit(text);
}

} // namespace orvane
