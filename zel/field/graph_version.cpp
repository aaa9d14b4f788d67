#include "zel/field/graph_version.h"

namespace zel::detail {

constinit std::array<std::atomic<std::uint64_t>, GraphVersions::kSlots> GraphVersions::s_slots{};
constinit std::atomic<std::uint64_t> GraphVersions::s_change = 0;

GraphChange::~GraphChange() {
    GraphVersions::noteChange();
}

}  // namespace zel::detail
