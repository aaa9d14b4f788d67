#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>

#include "support/random_nodes.h"

// checksum [GRAPHS]: prints a checksum of the bits that random graphs of all node classes give: by
// points, in batches, and as gradients of both. Two builds that print the same compute the same; a
// NaN counts as one value. The C library's functions are in it, too, so compare on one machine.
namespace {

using namespace support;

/// FNV-1a over floats.
class Checksum {
public:
    template <class T> void add(T const& value) {
        float floats[sizeof(T) / sizeof(float)];
        std::memcpy(floats, &value, sizeof value);
        for (float const f : floats)
            m_sum = (m_sum ^ (std::isnan(f) ? 0x7fc00000U : std::bit_cast<std::uint32_t>(f))) *
                    0x100000001b3U;
    }
    template <class T> void add(Quern::Ptr<Quern::Array<T>> const& values) {
        for (T const& value : *values) add(value);
    }
    friend std::ostream& operator<<(std::ostream& out, Checksum const& sum) {
        return out << std::hex << sum.m_sum << std::dec;
    }

private:
    std::uint64_t m_sum = 0xcbf29ce484222325U;
};

}  // namespace

int main(int argc, char** argv) {
    int const graphs = argc > 1 ? std::atoi(argv[1]) : 20;
    Checksum points, pointGradients, batches, batchGradients;
    unsigned seed = 1;
    for (int i = 0; i < graphs; ++i)
        forEveryNode([&](std::string const&, auto construct) {
            auto const node = RandomNodes(++seed).make(construct);
            auto const positions = somePositions(seed % 16 == 0 ? 5001 : 333, seed);
            for (long long at = 0; at < 50; ++at) {
                points.add(node->eval(positions[at], at));
                pointGradients.add(node->grad(positions[at], at));
            }
            batches.add(node->eval(positions));
            auto const both = Core::Fields::evalAndGrad(*node, positions);
            batches.add(both.values);
            batchGradients.add(both.gradients);
        });
    std::cout << "points " << points << ", gradients " << pointGradients << "\nbatches " << batches
              << ", gradients " << batchGradients << '\n';
    return std::cout.flush() ? 0 : 2;
}
