#include "zel_platform/orvane_math_support/exception_message.h"

namespace ORV {

ZEL_PLATFORM_FIRST Quern::String const exceptionMessage = "work on a volume was cancelled";

}  // namespace ORV
