#include "Logging.h"

namespace orvane {

Q_LOGGING_CATEGORY(lcScreenReel, "screenreel", QtWarningMsg)

} // namespace orvane
