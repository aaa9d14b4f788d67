#include "mesh_file.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <span>
#include <stdexcept>
#include <string>

#include "image.h"
#include "number_text.h"
#include "numbers.h"
#include "output_file.h"
#include "suffix.h"

namespace zel {

namespace {

void expectWhole(Mesh const& mesh) {
    std::size_t const count = mesh.positions.size();
    auto const fail = [&](std::string const& what) {
        throw std::invalid_argument("zel::Mesh: " + what + " with " + std::to_string(count) +
                                    " positions");
    };
    if (!mesh.normals.empty() && mesh.normals.size() != count)
        fail(std::to_string(mesh.normals.size()) + " normals");
    if (!mesh.colours.empty() && mesh.colours.size() != count)
        fail(std::to_string(mesh.colours.size()) + " colours");
    auto const expectCorners = [&](auto const& faces) {
        for (auto const& face : faces)
            for (std::uint32_t const corner : face)
                if (corner >= count) fail("a corner " + std::to_string(corner));
    };
    expectCorners(mesh.triangles);
    expectCorners(mesh.quads);
}

/// Text or bytes that go to a file in large pieces.
class Output {
public:
    explicit Output(std::filesystem::path const& path) : file(path) {}

    void add(std::string_view bytes) {
        buffer += bytes;
        if (buffer.size() >= kPiece) flush();
    }
    void addFloat(float number) {
        char digits[detail::kMostFloatDigits];
        add({digits, detail::formatFloat(digits, number)});
    }
    void addInteger(std::uint64_t number) {
        char digits[20];
        add({digits, std::to_chars(digits, digits + sizeof digits, number).ptr});
    }
    /// Little endian.
    void addBits(std::uint32_t bits) {
        char bytes[4];
        for (std::size_t i = 0; i < sizeof bytes; ++i)
            bytes[i] = static_cast<char>(bits >> 8 * i & 0xFFU);
        add({bytes, sizeof bytes});
    }
    void commit() {
        flush();
        file.commit();
    }

private:
    static constexpr std::size_t kPiece = std::size_t{1} << 16;

    void flush() {
        file.write(buffer);
        buffer.clear();
    }

    OutputFile file;
    std::string buffer;
};

void addLine(Output& output, std::string_view key, float3 const& v, float3 const* more = nullptr) {
    output.add(key);
    for (float3 const* const vector : {&v, more}) {
        if (vector == nullptr) break;
        for (int c = 0; c < 3; ++c) {
            output.add(" ");
            output.addFloat((*vector)[c]);
        }
    }
    output.add("\n");
}

void addVector(Output& output, float3 const& v) {
    for (int c = 0; c < 3; ++c) output.addBits(std::bit_cast<std::uint32_t>(v[c]));
}

void addBinaryFace(Output& output, std::span<std::uint32_t const> face) {
    char const size = static_cast<char>(face.size());
    output.add({&size, 1});
    for (std::uint32_t const corner : face) output.addBits(corner);
}

}  // namespace

void writeObj(std::filesystem::path const& path, Mesh const& mesh) {
    expectWhole(mesh);
    Output output(path);
    for (std::size_t i = 0; i < mesh.positions.size(); ++i)
        addLine(output, "v", mesh.positions[i], mesh.colours.empty() ? nullptr : &mesh.colours[i]);
    for (float3 const& normal : mesh.normals) addLine(output, "vn", normal);
    auto const addFaces = [&](auto const& faces) {
        for (auto const& face : faces) {
            output.add("f");
            for (std::uint64_t const corner : face) {
                output.add(" ");
                output.addInteger(corner + 1);
                if (mesh.normals.empty()) continue;
                output.add("//");
                output.addInteger(corner + 1);
            }
            output.add("\n");
        }
    };
    addFaces(mesh.triangles);
    addFaces(mesh.quads);
    output.commit();
}

void writePly(std::filesystem::path const& path, Mesh const& mesh) {
    expectWhole(mesh);
    if (mesh.positions.size() > 0x7FFFFFFF)
        throw std::invalid_argument("zel::writePly: a file has at most 2^31 - 1 vertices, not " +
                                    std::to_string(mesh.positions.size()));
    Output output(path);
    output.add("ply\nformat binary_little_endian 1.0\nelement vertex " +
               std::to_string(mesh.positions.size()) +
               "\nproperty float x\nproperty float y\nproperty float z\n");
    if (!mesh.normals.empty())
        output.add("property float nx\nproperty float ny\nproperty float nz\n");
    if (!mesh.colours.empty())
        output.add("property uchar red\nproperty uchar green\nproperty uchar blue\n");
    output.add("element face " + std::to_string(mesh.triangles.size() + mesh.quads.size()) +
               "\nproperty list uchar int vertex_indices\nend_header\n");
    for (std::size_t i = 0; i < mesh.positions.size(); ++i) {
        addVector(output, mesh.positions[i]);
        if (!mesh.normals.empty()) addVector(output, mesh.normals[i]);
        if (mesh.colours.empty()) continue;
        for (int c = 0; c < 3; ++c) {
            auto const sample = static_cast<char>(sampleOf<std::uint8_t>(mesh.colours[i][c]));
            output.add({&sample, 1});
        }
    }
    for (auto const& face : mesh.triangles) addBinaryFace(output, face);
    for (auto const& face : mesh.quads) addBinaryFace(output, face);
    output.commit();
}

void writeMesh(std::filesystem::path const& path, Mesh const& mesh) {
    std::string const suffix = detail::lowerSuffix(path);
    if (suffix == ".obj") return writeObj(path, mesh);
    if (suffix == ".ply") return writePly(path, mesh);
    throw FileError(path.string(), {}, "the suffix is none of .obj and .ply");
}

}  // namespace zel
