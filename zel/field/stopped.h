#pragma once

#include <stdexcept>

#include "zel/api.h"

namespace zel {

/// Thrown by a call that has ended early because a stop was requested by its caller's
/// std::stop_token.
class ZEL_API Stopped : public std::runtime_error {
public:
    Stopped();
    Stopped(Stopped const&);
    ~Stopped() override;
    Stopped& operator=(Stopped const&) = delete;
};

}  // namespace zel
