#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/orvane_math/vectors.h"

// Grids of OpenVDB, made, read and sampled by OpenVDB itself, behind a header that parses fast.
namespace vdb_grids {

using Orvane::Math::float3;
using Orvane::Math::int3;

struct Grid;
using GridPtr = std::shared_ptr<Grid>;

GridPtr sphere(float radius, float3 const& centre, float voxelSize);
/// Copies, changed by a tool of OpenVDB.
GridPtr fogOf(GridPtr const& levelSet);
GridPtr unionOf(GridPtr const& a, GridPtr const& b);
GridPtr inDouble(GridPtr const& grid);
/// A copy whose inactive values are all outside.
GridPtr withoutInside(GridPtr const& levelSet);
/// Random voxels, boxes and tiles of two levels, around and below 0.
GridPtr randomScalars(unsigned seed);
GridPtr randomVectors(unsigned seed);
GridPtr booleans();
/// A copy that also has a value at a voxel.
GridPtr withValue(GridPtr const& grid, int3 const& at, float value);
/// Tiles of the largest size, with different values.
GridPtr largeTiles(int count);
/// Copies with other transforms: by a matrix whose rows are the images of the axes and of 0.
GridPtr transformed(GridPtr const& grid, float const (&rows)[4][3]);
GridPtr inFrustum(GridPtr const& grid);

void write(std::string const& path, std::vector<std::pair<std::string, GridPtr>> const& grids,
           bool half = false);
GridPtr read(std::string const& path, std::string const& name);
/// Reads all grids of a file, and writes them to another.
void writeAgain(std::string const& from, std::string const& to);
std::string metadata(GridPtr const& grid, std::string const& name);
std::int64_t activeVoxels(GridPtr const& grid);
bool hasSameTopology(GridPtr const& a, GridPtr const& b);
float background(GridPtr const& grid);

/// The values of openvdb::tools::BoxSampler at positions in world space.
std::vector<float> sample(GridPtr const& grid, std::vector<float3> const& positions);
std::vector<float3> sampleVectors(GridPtr const& grid, std::vector<float3> const& positions);
/// The positions and the values of the active voxels.
std::vector<std::pair<float3, float>> voxels(GridPtr const& grid);

}  // namespace vdb_grids
