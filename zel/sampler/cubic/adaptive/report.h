#pragma once

#include <atomic>
#include <string>

#include "zel/sampler/cubic/adaptive/stencil.h"

// AdaptiveSample: what is reported of a NaN.
namespace ORV::TileTree3D::Internal {

/// Whether the sampler of a kind has reported a NaN in this process.
template <class Traits, class T>
[[gnu::visibility("hidden")]] inline std::atomic<bool> nanReported = false;

template <class Traits, class T, class Trace>
void AdaptiveSample<Traits, T, Trace>::nanInfo(char const* message) const {
    if (nanReported<Traits, T>.exchange(true)) return;
    putLine("VoxelSamplerCubic.nanInfo '", message, "'");
    putLine("in_depth = ", m_tile.depth());
    putLine("in_tijk = ", m_tile.tijk());
    putLine("llc = ", m_llc);
    putLine("in_lijk = ", m_lijk);
    putLine("in_frac = ", m_frac);
    putLine("vdw = ", m_vdw);
    putLine("tdw = ", Traits::kSamples);
    putLine("tvw = ", m_tvw);
    putLine("dofIsValid = ", m_source.m_dofChannel != nullptr);
    putLine("origin = ", m_origin.x, " ", m_origin.y, " ", m_origin.z);
    for (int a = 0; a < 2; ++a)
        for (int b = 0; b < 2; ++b)
            for (int c = 0; c < 2; ++c) {
                std::cout << "Tile(" << a << "," << b << "," << c << ") = ";
                if (Tile const* const tile = m_tileBlock[blockPlace(a, b, c)])
                    putLine(tile->tijk(), ", depth = ", tile->depth());
                else
                    putLine("nullptr");
            }
    putLine("DEBUG BEGIN");
    adaptiveValue<Traits, T, StreamTrace>(m_source, m_tile.treeIndex(), m_lijk, m_frac,
                                          m_depthLimit);
    putLine("DEBUG END");
}

/// Tests what a row is interpolated from, and the value that it gives: 0 in place of a NaN.
template <class Traits, class T, class Trace>
auto AdaptiveSample<Traits, T, Trace>::checkedRow(Register const (&values)[4],
                                                  float const (&positions)[4], float position,
                                                  bool jump, Register value) const -> Register {
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
    nanInfo(inputIsNaN ? "interpolateValues1D input is NAN" : "interpolateValues1D output is NAN");
    return Register{};
}

/// Tests the value of a stencil point, which came from a case of getValue: 0 in place of a NaN.
template <class Traits, class T, class Trace>
void AdaptiveSample<Traits, T, Trace>::checkPoint(int which, Point& point) const {
    if (!isNaN(point.value)) return;  // the position is an integer
    std::string const name = "getValue.case" + std::to_string(which);
    if (!nanReported<Traits, T>)
        putLine(name, " = ", point.value, ", ", static_cast<float>(point.start), ", ", point.step,
                ", ", point.start);
    nanInfo((name + " output is NAN").c_str());
    point.value = T();
}

}  // namespace ORV::TileTree3D::Internal
