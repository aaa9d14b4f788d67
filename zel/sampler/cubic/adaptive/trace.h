#pragma once

#include <iostream>

#include "zel_platform/orvane_geometry_volume/tile.h"

// The trace of the adaptive path of the cubic sampler on the standard output. For samples that are
// not traced the compiler drops all of it.
namespace ORV::TileTree3D::Internal {

/// A number, a text, or {i, j, k}, where an f follows each float.
template <class Value> void printValue(std::ostream& stream, Value const& value) {
    stream << value;
}
inline void printValue(std::ostream& stream, int3 const& p) {
    stream << '{' << p.x << ", " << p.y << ", " << p.z << '}';
}
inline void printValue(std::ostream& stream, float3 const& p) {
    stream << '{' << p.x << "f, " << p.y << "f, " << p.z << "f}";
}
/// Prints a line. A report may have a million of them, so that the stream is flushed at its end.
template <class... Values> void putLine(Values const&... values) {
    (printValue(std::cout, values), ...);
    std::cout << '\n';
}
inline void flushLines() {
    std::cout.flush();
}

/// The trace of one sample, printed if `On`. With `CheckNaN` the path also tests each number, and
/// replaces NaNs by 0.
template <bool On, bool CheckNaN = false> struct CubicTrace {
    static constexpr bool kOn = On, kCheckNaN = CheckNaN;
    static constexpr char axisName(int axis) { return static_cast<char>('x' + axis); }

    static void fetchTilesBegin(int3 const& sizes, int3 const& axes, int count) {
        line("fetchTiles.begin()");
        line("in_sizes = ", sizes);
        line("in_nzc = ", axes);
        line("in_nzcc = ", count);
    }
    static void fetched(int3 const& index, int3 const& corner, int depth) {
        line("localTileIndex(", index.x, ",", index.y, ",", index.z, ") = ", corner,
             ", depth = ", depth);
    }
    static void fetchTilesEnd(bool atJump, int3 const& origin) {
        line("io_atResolutionJump = ", atJump);
        line("origin = ", origin);
        line("fetchTiles.end()");
    }

    static void getTile(int3 const& tijk, int3 const& origin, int3 const& originIndex,
                        int3 const& lti, int3 const& corner, bool inCube) {
        line("getTile:");
        line(" in_tijk = ", tijk);
        line(" origin = ", origin);
        line(" originIndex = ", originIndex);
        line(" io_lti = ", lti);
        line(" tile.tijk = ", corner);
        line(" io_foundInCache = ", inCube);
    }

    static void getValue(int3 const& tijk) {
        line("GETVALUE():");
        line("in_tijk = ", tijk);
    }
    static void coarserTile() { line("case: tile.depth() < depth"); }
    static void voxel(int3 const& lijk, int3 const& child) {
        line("lijk = ", lijk);
        line("tlijk = ", child);
    }
    static void leaf() { line("isLeaf = true "); }
    static void flagged() { line("case: dof is valid, branch 1"); }
    static void refined() { line("case: neighbor refined"); }
    static void flaggedInRefined() { line("case: dof is valid, branch 2"); }
    static void getDefaultValue() { line("getDefaultValue"); }

    static void getCoarserValueBegin(float3 const& acrossAndAlong, float3 const& across) {
        line("getCoarserValue.begin()");
        line("nbFrac1 = ", acrossAndAlong);
        line("nbFrac2 = ", across);
    }
    static void getCoarserValueEnd(int start, int step) {
        line("io_tsPos = ", start);
        line("io_tsInc = ", step);
        line("io_position = ", static_cast<float>(start));
        line("getCoarserValue.end()");
    }
    static void recursionBegin() { line("calling recursively to fetch values"); }
    static void recursionEnd(int3 const& p) {
        line("recursively fetched value at: (", p.x, ", ", p.y, ", ", p.z, ")");
    }
    static void getValueAtThisLevel(int start, int step) {
        line("getValueAtThisLevel");
        line(" io_tsPos = ", start);
        line(" io_tsInc = ", step);
    }

    static void getValue1DBegin(int axis, float position, int3 const& tijk) {
        line("getValue1D.begin()");
        line("begin interpolating along ", axisName(axis), "-direction at position ", position);
        line(axisName(axis), "-direction-position along orthogonal direction = (",
             tijk[(axis + 1) % 3], ", ", tijk[(axis + 2) % 3], ")");
    }
    template <class T> static void getValue1DEnd(int axis, T const& value) {
        line("end interpolating along ", axisName(axis), "-direction");
        line("getValue1D.end() = ", value);
    }

    static void getIncrementAndPosition2DBegin(int3 const& tijk) {
        line("getIncrementAndPosition2D.begin() ");
        line(" in_tijk2 = ", tijk);
        line("============");
    }
    static void getIncrementAndPosition2DEnd(int position, int increment) {
        line(" io_inc = ", increment);
        line(" io_pos = ", position);
        line("getIncrementAndPosition2D.end() ");
    }

    static void getValue2DBegin(int across, int along, float3 const& position, int3 const& tijk) {
        int const orthogonal = 3 - across - along;
        line("getValue2D.begin()");
        line("interpolating along ", axisName(across), axisName(along), "-plane at position (",
             position[across], ", ", position[along], ")");
        line(axisName(across), axisName(along),
             "-plane-position along orthogonal direction = ", tijk[orthogonal]);
        line("nzcI = ", across);
        line("nzcJ = ", along);
    }
    template <class T> static void getValue2DEnd(T const& value) {
        line("getValue2D.end() = ", value);
    }

    static void info(bool atJump) {
        line("cubic info:");
        line("atResolutionJump = ", atJump);
    }

private:
    template <class... Values> static void line([[maybe_unused]] Values const&... values) {
        if constexpr (On) putLine(values...);
    }
};

using NoTrace = CubicTrace<false>;
using StreamTrace = CubicTrace<true>;
/// A switch for debugging, compiled for one kind of volume: only tests turn it on.
using CheckTrace = CubicTrace<false, true>;

}  // namespace ORV::TileTree3D::Internal
