#pragma once

#include "zel_platform/orvane_geometry_volume/container.h"

namespace ORV::TileTree3D {

/// A tree together with the place of the samples in its voxels. Channels are sized to a topology.
/// It shares the tree, and always describes the tree's present tiles.
template <class Traits> class ZEL_PLATFORM_API VoxelTopology : public Component {
public:
    /// Throws std::invalid_argument without a container, or if the type is not one of 0 to 7.
    explicit VoxelTopology(Quern::Ptr<Container<Traits>> container,
                           VoxelOffsetType type = kOnVoxelCorners);

    VoxelOffsetType offsetType() const { return m_offsetType; }
    /// The place of a sample in its voxel, in voxel widths: along each axis 0 for a set bit, 0.5
    /// for a clear one.
    float3 const& offset() const { return m_offset; }
    static float3 offsetOf(VoxelOffsetType type);

    Container<Traits> const& container() const { return *m_container; }

    void dump(std::ostream& stream) const override;
    void memUse(unsigned long long& used, unsigned long long& held, bool withObject) const override;
    /// The copy shares the tree.
    void copyTo(Quern::Ptr<Component>& target) const override;
    unsigned long long size() const override;
    /// Throws std::logic_error: a topology is always in step with its tree.
    void update(Component const& topology) override;
    long long elementCount(int depth) const override;
    int elementCount(TreeIndex const& index) const override;
    long long tileCount(int depth) const override { return m_container->tileCount(depth); }
    int minDepth() const override { return 0; }
    int depth() const override { return m_container->depth(); }

private:
    Quern::Ptr<Container<Traits>> m_container;
    VoxelOffsetType m_offsetType;
    float3 m_offset;
};

extern template class ZEL_PLATFORM_API VoxelTopology<BinaryTraits>;
extern template class ZEL_PLATFORM_API VoxelTopology<QuinaryTraits>;

}  // namespace ORV::TileTree3D
