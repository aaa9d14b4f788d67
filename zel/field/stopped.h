#pragma once

#include <stdexcept>

#include "zel/api.h"

namespace zel {

/// Thrown by a call that ended early because its caller's std::stop_token asked it to.
class ZEL_API Stopped : public std::runtime_error {
public:
    Stopped() : std::runtime_error("zel::Stopped: the caller asked the evaluation to stop") {}
};

}  // namespace zel
