#include "zel/sampler/cubic/adaptive/report.h"

namespace ORV::TileTree3D::Internal {

template <class Traits, class T>
void traceBlock(CubicSource<Traits, T> const& source, TreeIndex const& tree, int3 const& lijk,
                float3 const& frac) {
    auto const& tile = source.m_container->tile(tree);
    if (!tile.exists()) return;
    AdaptiveSample<Traits, T, StreamTrace>(source, tile, lijk, frac, tree.depth).fetchBlock();
}

ZEL_DETAIL_ADAPTIVES();

}  // namespace ORV::TileTree3D::Internal
