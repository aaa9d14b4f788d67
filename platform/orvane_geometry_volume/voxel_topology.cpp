#include "zel_platform/orvane_geometry_volume/voxel_topology.h"

#include <ostream>
#include <stdexcept>
#include <utility>

#include "zel_platform/orvane_geometry_volume/messages.h"

namespace ORV::TileTree3D {

template <class Traits>
VoxelTopology<Traits>::VoxelTopology(Quern::Ptr<Container<Traits>> container, VoxelOffsetType type)
    : m_container(std::move(container)), m_offsetType(type), m_offset(offsetOf(type)) {
    if (!m_container) throw std::invalid_argument("VoxelTopology: no container");
    if (type < 0 || type > 7)
        throw std::invalid_argument(Internal::message("VoxelTopology: offset type ", type));
}

template <class Traits> float3 VoxelTopology<Traits>::offsetOf(VoxelOffsetType type) {
    return {(type & 1) != 0 ? 0.0f : 0.5f, (type & 2) != 0 ? 0.0f : 0.5f,
            (type & 4) != 0 ? 0.0f : 0.5f};
}

template <class Traits> void VoxelTopology<Traits>::dump(std::ostream& stream) const {
    stream << "VoxelTopology of offset type " << m_offsetType << " over " << tileCount(-1)
           << " tiles\n";
}

template <class Traits>
void VoxelTopology<Traits>::memUse(unsigned long long& used, unsigned long long& held,
                                   bool withObject) const {
    used = held = withObject ? sizeof *this : 0;
}

template <class Traits> void VoxelTopology<Traits>::copyTo(Quern::Ptr<Component>& target) const {
    target = Quern::makePtr<VoxelTopology>(*this);
}

template <class Traits> unsigned long long VoxelTopology<Traits>::size() const {
    return static_cast<unsigned long long>(elementCount(-1));
}

template <class Traits> void VoxelTopology<Traits>::update(Component const& topology) {
    throw std::logic_error(
        Internal::message("VoxelTopology::update: depends on its tree alone, not on ", topology));
}

template <class Traits> long long VoxelTopology<Traits>::elementCount(int depth) const {
    return tileCount(depth) * Traits::kSampleCount;
}

template <class Traits> int VoxelTopology<Traits>::elementCount(TreeIndex const& index) const {
    return m_container->elementCount(index) * Traits::kSampleCount;
}

template class VoxelTopology<BinaryTraits>;
template class VoxelTopology<QuinaryTraits>;

}  // namespace ORV::TileTree3D
