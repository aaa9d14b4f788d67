#pragma once

#include <array>

#include "zel/sampler/cubic/adaptive/trace.h"
#include "zel/sampler/cubic/tile_cube.h"

// The adaptive path of the cubic sampler: each stencil point is looked up by itself, and the tree
// decides how far it lies from the next one. Rows of four points make planes, and planes volumes.
//
// Positions are those of the voxels' low corners. With samples off the corners that is off by a
// part of a voxel that depends on the depth, so linear data is reproduced across a jump only along
// axes whose samples lie on the corners.
namespace ORV::TileTree3D::Internal {

/// The value of a sample; see VoxelSamplerCubic::sampleVoxel. It calls itself for a value of a
/// coarser tile, and for one between the voxels of a tile along fewer axes: at most two times a
/// depth, and once more.
template <class Traits, class T, class Trace>
T adaptiveValue(CubicSource<Traits, T> const& source, TreeIndex const& tree, int3 const& lijk,
                float3 const& frac, int depth);

/// Traces how the tiles around a voxel are fetched, for a sample that goes no further.
template <class Traits, class T>
void traceBlock(CubicSource<Traits, T> const& source, TreeIndex const& tree, int3 const& lijk,
                float3 const& frac);

/// The working state of one sample, which lives for as long as that.
template <class Traits, class T, class Trace> class AdaptiveSample {
public:
    AdaptiveSample(CubicSource<Traits, T> const& source, TileOf<Traits> const& tile,
                   int3 const& lijk, float3 const& frac, int depthLimit);

    /// 0 for a value that is NaN, which is reported.
    T value();

    /// Fetches all eight tiles around the stencil.
    void fetchBlock();

private:
    using Tile = TileOf<Traits>;
    using Register = RegisterOf<T>;

    /// What a stencil point delivers: its value, and the voxel that answered, along the axis at
    /// hand.
    struct Point {
        T value;
        int start;  ///< the voxel's low face
        int step;   ///< its width
    };

    T find();
    T dataPoint() const;
    T interpolateBlock3D() const;

    // The lookup of one stencil point.
    void fetchTiles(int3 const& sizes, int3 const& axes, int count);
    Tile const& getTile(int3 const& tijk, int3& lti, bool& inBlock) const;
    bool getValue(int3 const& tijk, int axis, Point& point) const;
    int findValue(int3 const& tijk, int axis, Point& point) const;
    int getValueAtThisLevel(Tile const& tile, int3 const& lijk, T const* data, int3 const& tijk,
                            int axis, Point& point) const;
    int getCoarserValue(Tile const& tile, int3 const& tijk, int axis, Point& point) const;
    int getDefaultValue(Point& point) const;
    T sampleVoxel(Tile const& tile, int3 const& lijk, float3 const& frac) const;
    T sampleOf(T const* data, int3 const& lijk) const;
    bool isFlagged(short const* dof, int3 const& lijk) const;
    short const* dofOf(Tile const& tile) const;

    // The composition of points to rows, planes and volumes.
    bool getValue1D(int3 tijk, int axis, float position, Register& value) const;
    bool getValue2D(int3 const& tijk, int across, int along, float3 const& position,
                    Register& value) const;
    bool getValue3D(float3 const& position, Register& value) const;
    template <class Place, class Below>
    bool compose(int3 tijk, int axis, float samplePosition, bool jump, Place place, Below below,
                 Register& value) const;
    int smallestVoxelWidth(int3 const& p) const;
    void getIncrementAndPosition2D(int3 const& tijk, int across, int along, int& position,
                                   int& increment) const;
    void getIncrementAndPosition3D(int3 const& tijk, int& position, int& increment) const;
    Register interpolateValues1D(Register const (&values)[4], int const (&places)[4], int axis,
                                 float position, bool jump) const;

    // What is reported of a NaN.
    void nanInfo(char const* message) const;
    Register checkedRow(Register const (&values)[4], float const (&positions)[4], float position,
                        bool jump, Register value) const;
    void checkPoint(int which, Point& point) const;

    CubicSource<Traits, T> const& m_source;
    Tile const& m_tile;
    int3 const m_lijk;
    float3 const m_frac;
    int const m_depthLimit;
    int const m_vdw, m_tvw;  // widths of a voxel and of the tile
    int3 const m_llc;        // the voxel's low corner
    int3 m_tijk;             // the lattice point of the sample

    // The tiles around the stencil, 2x2x2, where they were fetched. The sentinel is one of them.
    std::array<Tile const*, 8> m_tileBlock{};
    std::array<T const*, 8> m_dataBlock{};
    std::array<short const*, 8> m_dofBlock{};
    int3 m_origin, m_originIndex;  // the tile of m_tijk: its low corner, and its place in the block
    bool m_atResolutionJump = false;
};

#define ZEL_DETAIL_ADAPTIVE(prefix, Traits, T)                                                     \
    prefix template T adaptiveValue<Traits, T, NoTrace>(                                           \
        CubicSource<Traits, T> const&, TreeIndex const&, int3 const&, float3 const&, int);         \
    prefix template T adaptiveValue<Traits, T, StreamTrace>(                                       \
        CubicSource<Traits, T> const&, TreeIndex const&, int3 const&, float3 const&, int);         \
    prefix template void traceBlock<Traits, T>(CubicSource<Traits, T> const&, TreeIndex const&,    \
                                               int3 const&, float3 const&)
#define ZEL_DETAIL_ADAPTIVES(prefix)                                                               \
    ZEL_DETAIL_ADAPTIVE(prefix, BinaryTraits, float);                                              \
    ZEL_DETAIL_ADAPTIVE(prefix, BinaryTraits, float3);                                             \
    ZEL_DETAIL_ADAPTIVE(prefix, QuinaryTraits, float);                                             \
    ZEL_DETAIL_ADAPTIVE(prefix, QuinaryTraits, float3)
ZEL_DETAIL_ADAPTIVES(extern);

}  // namespace ORV::TileTree3D::Internal
