// Makes a graph of the library's nodes from bytes, and positions from the rest of them. All ways to
// evaluate it must give the bits of point calls: blocks of odd sizes, a fusion, each instruction
// set, the tree that is read from its file, and the same tree with derivatives for gradients, whose
// values must stay.

#include <limits>
#include <span>
#include <string>
#include <vector>

#include "cost.h"
#include "expect.h"
#include "support/random_nodes.h"
#include "zel_platform/quern_core/simd_target.h"
#include "zel_scene/compare.h"
#include "zel_scene/json.h"
#include "zel_scene/register_node.h"

namespace {

using support::Choices;
using zel::float3;

zel::NodeRegistration<support::OwnScalar> const ownScalar("OwnScalar");
zel::NodeRegistration<support::OwnSum> const ownSum("OwnSum");

constexpr float kInf = std::numeric_limits<float>::infinity();

/// Often a number of few digits, and else any bits.
float someFloat(Choices& choices) {
    static constexpr float kOdd[] = {0,      -0.0F, 1e-40F, 1e20F, 1e38F,
                                     -1e38F, kInf,  -kInf,  NAN,   0x1p31F};
    auto const kind = choices() % 0x10000;
    if (kind < 0xc000) return static_cast<float>(kind % 0x1000) / 0x800 - 1;
    if (kind < 0xe000) return kOdd[kind % std::size(kOdd)];
    return std::bit_cast<float>(static_cast<std::uint32_t>((kind << 16) ^ (choices() & 0xffff)));
}

long long someIndex(Choices& choices) {
    static constexpr long long kOdd[] = {0, -5, (1LL << 31) - 2, -(1LL << 40) - 7,
                                         std::numeric_limits<long long>::max() - 1};
    auto const kind = choices() % 16;
    return kind < std::size(kOdd) ? kOdd[kind] : static_cast<long long>(choices() % 100);
}

class Graph : public support::RandomNodes {
public:
    using RandomNodes::RandomNodes;

    zel::Tree root(unsigned nodes) {
        zel::Tree made;
        while (nodes-- > 0)
            std::visit([&](auto construct) { made = make(construct); },
                       support::nodeMakers()[random() % support::nodeMakers().size()].construct);
        return made;
    }
    Choices& rest() { return random; }

private:
    float number() const override {
        return random() % 8 != 0 ? RandomNodes::number() : someFloat(random);
    }
};

template <class Interface> struct Results {
    std::vector<typename Interface::Value> values;
    std::vector<typename Interface::Gradient> gradients;

    explicit Results(std::size_t count) : values(count), gradients(count) {}
    void expectSame(Results const& other) const {
        for (std::size_t i = 0; i < values.size(); ++i) {
            expect(same(values[i], other.values[i]));
            expect(same(gradients[i], other.gradients[i]));
        }
    }
};

struct Points {
    std::vector<float3> at;
    long long first;  ///< the index of the first one

    long long index(std::size_t i) const {
        return static_cast<long long>(static_cast<std::uint64_t>(first) + i);
    }
};

template <class Interface>
Results<Interface> byPoints(Interface const& field, Points const& points) {
    Results<Interface> results(points.at.size());
    for (std::size_t i = 0; i < points.at.size(); ++i) {
        results.values[i] = field.eval(points.at[i], points.index(i));
        results.gradients[i] = field.grad(points.at[i], points.index(i));
    }
    return results;
}

/// In batches of so many positions each. Writes the values alone, the gradients alone or both.
template <class Interface>
void inBatches(Interface const& field, Points const& points, std::size_t size, unsigned what,
               Results<Interface>& to) {
    zel::EvaluateOptions options;
    options.parallel = false;
    for (std::size_t i = 0; i < points.at.size(); i += size) {
        std::size_t const count = std::min(size, points.at.size() - i);
        options.firstIndex = points.index(i);
        std::span const values(to.values.data() + i, what != 1 ? count : 0);
        std::span const gradients(to.gradients.data() + i, what != 0 ? count : 0);
        evaluate(field, zel::PointView::of(std::span(points.at).subspan(i, count)), values,
                 gradients, options);
    }
}

template <class Interface>
void check(Quern::Ptr<Interface> const& root, Points const& points, bool canBeSaved,
           Choices& choices) {
    auto const expected = byPoints(*root, points);
    auto const targets = Quern::simdTargets();
    Quern::useSimdTarget(targets[choices() % targets.size()]);
    // A thread plans a fusion for a graph that it has evaluated so often.
    Results<Interface> got(points.at.size());
    for (unsigned round = 0; round < 18; ++round) {
        if (round == 3 && choices() % 4 != 0) break;
        bool const all = round % 6 == 5;
        inBatches(*root, points, all ? points.at.size() : 1 + choices() % points.at.size(),
                  round % 3, got);
        if (round % 3 != 0) expected.expectSame(got);
    }
    auto const exact = withExactGradients(root);
    auto const derivatives = byPoints(*exact, points);
    Results<Interface> blocks(points.at.size());
    inBatches(*exact, points, points.at.size(), 2, blocks);
    derivatives.expectSame(blocks);
    for (std::size_t i = 0; i < points.at.size(); ++i)
        expect(same(derivatives.values[i], expected.values[i]));
    if (!canBeSaved) return;
    std::string const text = zel::toJson(root);
    zel::Tree const read = zel::fromJson(text);
    expect(sameTree(zel::Tree(root), read) && zel::toJson(read) == text);
    byPoints(*std::get<Quern::Ptr<Interface>>(read), points).expectSame(expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Choices choices(std::span(data, size));
    auto const kind = choices();
    bool const binds = kind % 4 == 0;
    Graph graph(choices, binds);
    zel::Tree const root = graph.root(1 + kind / 4 % 8);
    Choices& rest = graph.rest();
    Points points{std::vector<float3>(1 + rest() % (rest() % 16 == 0 ? 300 : 30)), someIndex(rest)};
    for (float3& p : points.at) p = {someFloat(rest), someFloat(rest), someFloat(rest)};
    std::visit(
        [&](auto const& node) {
            if (Cost()(node) < 100) check(node, points, !binds, rest);
        },
        root);
    return 0;
}
