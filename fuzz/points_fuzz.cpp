// Reads any bytes as points, as an array and as an image. Points that are read to the end are
// written as a table that gives the same points again.

#include <unistd.h>

#include <cstdint>
#include <string>

#include "expect.h"
#include "zel_exchange/image.h"
#include "zel_exchange/npy.h"
#include "zel_exchange/points.h"

namespace {

using Orvane::Math::float3;

/// All positions, of a file that is not too long; false if it is no file of points.
bool readAll(zel::PointReader reader, std::vector<float3>& points) {
    zel::PointChunk chunk = reader.makeChunk(50);
    zel::objectOf(chunk);
    while (points.size() < 500 && reader.read(chunk)) {
        expect(chunk.count <= 50 && chunk.first == points.size());
        points.insert(points.end(), chunk.points().begin(), chunk.points().end());
    }
    if (points.size() >= 500) return false;
    expect(!reader.count() || *reader.count() == points.size());
    return true;
}

void readPoints(std::span<std::byte const> bytes) {
    std::vector<float3> points, again;
    try {
        if (!readAll(zel::PointReader(bytes, "bytes"), points)) return;
    } catch (zel::FileError const&) {
        return;
    }
    static std::string const path = "/dev/shm/points-" + std::to_string(getpid()) + ".csv";
    zel::PointWriter writer(path, {});
    writer.write(points, {});
    writer.commit();
    expect(readAll(zel::PointReader(path), again) && again.size() == points.size());
    for (std::size_t i = 0; i < points.size(); ++i)
        for (int c = 0; c < 3; ++c) expect(same(points[i][c], again[i][c]));
    unlink(path.c_str());
}

void readArray(std::span<std::byte const> bytes) {
    try {
        zel::NpyArray const array(bytes, "bytes");
        std::vector<float> numbers(array.layout().count());
        array.read(0, numbers);
        if (array.isViewable())
            for (std::size_t i = 0; i < numbers.size(); ++i)
                expect(same(numbers[i], array.view()[i]));
    } catch (zel::FileError const&) {
    }
}

void readImage(std::span<std::byte const> bytes) {
    try {
        std::visit(
            [](auto const& image) {
                expect(image.samples.size() ==
                       image.width * image.height * static_cast<std::size_t>(image.channels));
            },
            zel::readPng(bytes, "bytes", 1 << 20));
    } catch (zel::FileError const&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const bytes = std::as_bytes(std::span(data, size));
    readPoints(bytes);
    readArray(bytes);
    readImage(bytes);
    return 0;
}
