#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "byte_source.h"

namespace zel::detail {

enum class PlyType { kInt8, kUint8, kInt16, kUint16, kInt32, kUint32, kFloat, kDouble };

std::size_t sizeOf(PlyType type);

struct PlyProperty {
    std::string name;
    PlyType type = PlyType::kFloat;  // of the number, or of each element of a list
    bool isList = false;
    PlyType countType = PlyType::kUint8;
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;

    bool hasLists() const;
    /// The bytes of one in a binary file; of its lists, those of the lengths alone.
    std::size_t size() const;
};

enum class PlyEncoding { kAscii, kLittleEndian, kBigEndian };

struct PlyHeader {
    PlyEncoding encoding = PlyEncoding::kAscii;
    std::vector<PlyElement> elements;
};

/// Whether a file with this begin is a .ply file.
bool isPly(std::span<std::byte const> begin);

/// Reads a header, from the first byte of a file. Throws FileError.
PlyHeader readPlyHeader(ByteReader& source);

}  // namespace zel::detail
