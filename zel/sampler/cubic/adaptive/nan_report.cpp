#include "zel/sampler/cubic/adaptive/nan_report.h"

#include <atomic>
#include <string>

#include "zel/sampler/cubic/adaptive/sample.h"
#include "zel/sampler/cubic/tile_cube.h"

namespace ORV::TileTree3D::Internal {

namespace {

template <class Traits, class T> std::atomic<bool> reported = false;

}  // namespace

template <class Traits, class T>
void reportNaN(AdaptiveState<Traits, T> const& state, char const* message) {
    if (reported<Traits, T>.exchange(true)) return;
    putLine("VoxelSamplerCubic.nanInfo '", message, "'");
    putLine("in_depth = ", state.tile.depth());
    putLine("in_tijk = ", state.tile.tijk());
    putLine("llc = ", state.llc);
    putLine("in_lijk = ", state.lijk);
    putLine("in_frac = ", state.frac);
    putLine("vdw = ", state.vdw);
    putLine("tdw = ", Traits::kSamples);
    putLine("tvw = ", state.tvw);
    putLine("dofIsValid = ", state.source.dofChannel != nullptr);
    putLine("origin = ", state.origin.x, " ", state.origin.y, " ", state.origin.z);
    for (int a = 0; a < 2; ++a)
        for (int b = 0; b < 2; ++b)
            for (int c = 0; c < 2; ++c) {
                std::cout << "Tile(" << a << "," << b << "," << c << ") = ";
                if (auto const* const tile = state.tiles[TileCube<T>::slotOf(a, b, c)])
                    putLine(tile->tijk(), ", depth = ", tile->depth());
                else
                    putLine("nullptr");
            }
    putLine("DEBUG BEGIN");
    adaptiveValue<Traits, T, StreamTrace>(state.source, state.memo, state.tile.treeIndex(),
                                          state.lijk, state.frac, state.depthLimit);
    putLine("DEBUG END");
    flushLines();
}

template <class Traits, class T>
void checkPoint(AdaptiveState<Traits, T> const& state, PointCase found, StencilPoint<T>& point) {
    if (!isNaN(point.value)) return;  // only the value can be NaN: positions are integers
    std::string const name = "getValue.case" + std::to_string(static_cast<int>(found));
    if (!reported<Traits, T>)
        putLine(name, " = ", point.value, ", ", static_cast<float>(point.start), ", ", point.step,
                ", ", point.start);
    reportNaN(state, (name + " output is NAN").c_str());
    point.value = T();
}

template <class Traits, class T>
RegisterOf<T> checkedRow(AdaptiveState<Traits, T> const& state, RegisterOf<T> const (&values)[4],
                         float const (&positions)[4], float position, bool jump,
                         RegisterOf<T> value) {
    T f[4];
    bool inputIsNaN = std::isnan(position);
    for (int n = 0; n < 4; ++n) {
        f[n] = RegisterTraits<T>::to(values[n]);
        inputIsNaN = inputIsNaN || isNaN(f[n]) || std::isnan(positions[n]);
    }
    if (!inputIsNaN && !isNaN(RegisterTraits<T>::to(value))) return value;
    putLine("positions = ", positions[0], ", ", positions[1], ", ", positions[2], ", ",
            positions[3]);
    putLine("values = ", f[0], ", ", f[1], ", ", f[2], ", ", f[3]);
    putLine("atResolutionJump = ", jump);
    putLine("samplePosition = ", position);
    flushLines();
    reportNaN(state, inputIsNaN ? "interpolateValues1D input is NAN"
                                : "interpolateValues1D output is NAN");
    return RegisterOf<T>{};
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_NAN_REPORT, );

}  // namespace ORV::TileTree3D::Internal
