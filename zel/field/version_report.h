#pragma once

namespace zel::detail {

/// Prints one line that identifies the build to the error stream, if the environment variable
/// "TALLOW_DUMP_VERSION_INFO" is set to a number other than 0. Gives whether it was asked to.
bool reportVersion();

}  // namespace zel::detail
