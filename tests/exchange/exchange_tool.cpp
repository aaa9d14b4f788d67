// Reads files and writes them anew, for numpy_test.py:
//
//     exchange_tool array IN.npy OUT.npy    numbers, by offset
//     exchange_tool map IN.npy OUT.npy      numbers, from mapping to mapping
//     exchange_tool points IN OUT           positions, to a property "p" of the output

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "zel_exchange/npy.h"
#include "zel_exchange/points.h"

namespace {

void copyArray(char const* input, char const* output, bool isMapped) {
    zel::NpyArray const array(input);
    zel::NpyLayout layout = array.layout();
    layout.isDouble = layout.isBigEndian = false;
    zel::NpyWriter writer(output, layout);
    if (isMapped) {
        auto const numbers = array.view();
        std::copy(numbers.begin(), numbers.end(), writer.map().begin());
    } else {
        std::vector<float> numbers(layout.count());
        array.read(0, numbers);
        writer.write(numbers);
    }
    writer.commit();
}

void copyPoints(char const* input, char const* output) {
    zel::PointReader reader(input);
    zel::PointWriter writer(output, {{"p", 3}});
    zel::PointChunk chunk = reader.makeChunk(1000);
    while (reader.read(chunk)) writer.write(chunk.points(), {chunk.points()});
    writer.commit();
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 4) return 2;
    std::string_view const mode = argv[1];
    if (mode == "points")
        copyPoints(argv[2], argv[3]);
    else
        copyArray(argv[2], argv[3], mode == "map");
    return 0;
} catch (std::exception const& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
