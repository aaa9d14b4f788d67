#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

// The options of the subcommands. main.cpp parses them; manual: zel.1.
namespace command {

/// A scene, and the volumes that it reads.
struct SceneOptions {
    std::string scene;               ///< a file, or "-"
    std::vector<std::string> binds;  ///< CHANNEL=FILE or CHANNEL=FILE:GRID
    bool allowUnbound = false;
};

struct ShowOptions {
    std::string scene;
    bool dot = false;
};

struct EvalOptions {
    SceneOptions scene;
    std::vector<std::string> points;
    std::string output = "-";
    bool gradient = false;
    bool exact = false;
};

struct SliceOptions {
    SceneOptions scene;
    std::string output;
    std::string plane = "z=0";
    std::string size = "1024";
    std::array<float, 2> center{};
    float width = 4;
    std::string component;
    bool hasIsolines = false;
    std::optional<float> isolines;  ///< the spacing; a suitable one without it
    std::optional<float> scale;
    int gray = 0;  ///< bits of a pixel, or 0 for colours
    std::optional<std::array<float, 2>> range;
};

struct RenderOptions {
    SceneOptions scene;
    std::string output;
    std::string size = "1024x768";
    std::array<float, 3> eye{2.6F, 2.4F, 5.2F};
    std::array<float, 3> target{};
    float angle = 40;  ///< of the picture's width, in degrees
    float step = 0.9F;
    std::string color = "d97a1f";
};

/// The box that a volume or a mesh is made of. Within the range of floats; doubles, so that a box
/// of a whole number of voxels in decimals stays one.
struct GridOptions {
    std::array<double, 6> box{};  ///< the low corner, then the high corner
    double voxel = 0;
};

struct VolumeOptions {
    SceneOptions scene;
    std::string output;
    GridOptions grid;
    std::optional<float> band;  ///< in voxels; dense grids without it
    bool fog = false;
    bool half = false;
    std::string name;  ///< of the grid; empty for the usual one
};

struct MeshOptions {
    SceneOptions scene;
    std::string output;
    GridOptions grid;
    float adaptivity = 0;
    std::vector<std::string> colors;  ///< the files of scenes
};

struct InfoOptions {
    std::string file;
};

struct BenchOptions {
    SceneOptions scene;
    std::size_t points = 1 << 20;
    double seconds = 1;
    std::array<double, 6> box{-1, -1, -1, 1, 1, 1};
};

}  // namespace command
