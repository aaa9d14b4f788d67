#pragma once

#include <filesystem>

#include "zel_exchange/api.h"
#include "zel_exchange/error.h"
#include "zel_exchange/mesh.h"

// Meshes in .obj and .ply files. A file appears when it is complete: see OutputFile.
namespace zel {

/// Writes a text, in which each number has the digits that it takes to read the same float back.
/// Colours stand behind the coordinates of a vertex, as they are; not all programs read them.
///
/// Throws FileError. Throws std::invalid_argument for a mesh whose normals or colours are neither
/// none nor as many as its positions, or with a corner that is no vertex, before a file is made.
ZEL_EXCHANGE_API void writeObj(std::filesystem::path const& path, Mesh const& mesh);

/// Writes a binary file, little endian: floats, colours as bytes from 0 to 255, and faces as lists
/// `vertex_indices` of 32-bit integers. Throws as writeObj() does, and std::invalid_argument for
/// more than 2^31 - 1 vertices.
ZEL_EXCHANGE_API void writePly(std::filesystem::path const& path, Mesh const& mesh);

/// Writes the format of the suffix, .obj or .ply of any case. Throws FileError for another.
ZEL_EXCHANGE_API void writeMesh(std::filesystem::path const& path, Mesh const& mesh);

}  // namespace zel
