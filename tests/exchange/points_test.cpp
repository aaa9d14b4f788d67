#include "zel_exchange/points.h"

#include <gmock/gmock.h>

#include <cmath>

#include "exchange/files.h"
#include "zel_exchange/npy.h"

// Points in files: what is written is read back to the bit, and what others write is read or
// refused.
using namespace support;
using namespace zel;
using Orvane::Math::float3;
using Orvane::Math::float3x3;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Points {
    std::vector<std::string> names;
    std::vector<float3> positions;
    std::vector<std::vector<float>> scalars;
    std::vector<std::vector<float3>> vectors;
};

Points readAll(PointReader& reader, std::size_t size = 7) {
    Points all;
    all.names = reader.propertyNames();
    PointChunk chunk = reader.makeChunk(size);
    for (PointChunk::Property const& property : chunk.properties)
        property.scalars ? all.scalars.emplace_back(), 0 : (all.vectors.emplace_back(), 0);
    while (reader.read(chunk)) {
        EXPECT_EQ(chunk.first, all.positions.size());
        all.positions.insert(all.positions.end(), chunk.points().begin(), chunk.points().end());
        for (std::size_t i = 0; i < chunk.properties.size(); ++i) {
            PointChunk::Property const& property = chunk.properties[i];
            auto const count = static_cast<std::ptrdiff_t>(chunk.count);
            if (property.scalars) {
                auto const* const from = property.scalars->data();
                all.scalars[i].insert(all.scalars[i].end(), from, from + count);
            } else {
                auto const* const from = property.vectors->data();
                auto& to = all.vectors[i - all.scalars.size()];
                to.insert(to.end(), from, from + count);
            }
        }
    }
    return all;
}
Points readText(std::string_view text) {
    PointReader reader(bytesOf(text), "text");
    return readAll(reader);
}
std::string errorOfText(std::string_view text) {
    return errorOf([&] { readText(text); });
}

std::span<float const> floatsOf(std::span<float3 const> vectors) {
    return vectors.empty() ? std::span<float const>()
                           : std::span(&vectors.front().x, 3 * vectors.size());
}

std::vector<float3> anyVectors(std::mt19937& random, std::size_t count) {
    std::vector<float3> vectors(count);
    for (float3& v : vectors) v = {anyFloat(random), anyFloat(random), anyFloat(random)};
    return vectors;
}

}  // namespace

TEST(Points, AreReadBackToTheBit) {
    Folder const folder;
    std::mt19937 random(1);
    for (std::size_t const count : {0U, 1U, 6U, 7U, 1024U, 2500U})
        for (char const* const name : {"a.csv", "a.ply"}) {
            SCOPED_TRACE(std::string(name) + " of " + std::to_string(count));
            auto const positions = anyVectors(random, count), vectors = anyVectors(random, count);
            auto const values = anyFloats(random, count);
            std::vector<float3x3> matrices(count);
            for (float3x3& m : matrices)
                for (float3& row : m.rows) row = anyVectors(random, 1)[0];
            PointWriter writer(folder / name, {{"value", 1}, {"gradient", 3}, {"m", 9}});
            std::size_t const half = count / 2;
            writer.write(std::span(positions).first(half),
                         {std::span(values).first(half), std::span(vectors).first(half),
                          std::span(matrices).first(half)});
            EXPECT_FALSE(std::filesystem::exists(folder / name));
            writer.write(std::span(positions).subspan(half),
                         {std::span(values).subspan(half), std::span(vectors).subspan(half),
                          std::span(matrices).subspan(half)});
            writer.commit();

            PointReader reader(folder / name);
            bool const isPly = std::string_view(name) == "a.ply";
            EXPECT_EQ(reader.count(), isPly ? std::optional(std::uint64_t{count}) : std::nullopt);
            Points const points = readAll(reader);
            EXPECT_EQ(bitsOf(floatsOf(points.positions)), bitsOf(floatsOf(positions)));
            EXPECT_EQ(bitsOf(points.scalars[0]), bitsOf(values));
            ASSERT_EQ(points.names.size(), 13 + 4);
            EXPECT_EQ(points.names[13], "gradient");
            EXPECT_EQ(bitsOf(floatsOf(points.vectors[0])), bitsOf(floatsOf(vectors)));
            for (std::size_t i = 0; i < count; ++i)
                EXPECT_EQ(std::bit_cast<std::uint32_t>(points.vectors[3][i].y),
                          std::bit_cast<std::uint32_t>(matrices[i][2].y));
            std::filesystem::remove(folder / name);
        }
    EXPECT_EQ(folder.size(), 0);
}

TEST(Points, OfTablesAreReadOrRefused) {
    EXPECT_EQ(errorOfText("x,y,z\n1,2,abc\n"),
              "line 2, column \"z\": wanted a number, found \"abc\"");
}
