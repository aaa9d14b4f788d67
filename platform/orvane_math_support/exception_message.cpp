#include "zel_platform/orvane_math_support/exception_message.h"

namespace ORV {

Quern::String const exceptionMessage = "work on a volume was cancelled";

}  // namespace ORV
