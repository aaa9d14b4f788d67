// Reads any text as a scene. A text that is read must be written to one that gives the same tree,
// the same hash and the same text again.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "zel_scene/bind.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"

namespace {

void expect(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    zel::Tree tree;
    try {
        tree = zel::fromJson(text, {.bytes = 1 << 20, .nodes = 10'000, .depth = 200});
    } catch (zel::SceneError const&) {
        return 0;
    }
    std::string const written = zel::toJson(tree);
    zel::Tree const again = zel::fromJson(written);
    expect(zel::sameTree(tree, again));
    expect(zel::hashOf(tree) == zel::hashOf(again));
    expect(zel::toJson(again) == written);
    expect(zel::check(tree).empty());
    expect(!zel::describe(tree).empty() && !zel::toDot(tree).empty());
    return 0;
}
