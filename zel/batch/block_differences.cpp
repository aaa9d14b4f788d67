#include "zel/batch/block_differences.h"

#include "zel/field/differences.h"
#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel_platform/quern_core/position_loop.h"

namespace zel::detail {

template <class Interface>
void differencesInBlock(Interface const& node, Block& block,
                        BlockResult<typename Interface::Gradient>& out) {
    using Value = typename Interface::Value;
    auto const write = out.writer();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        Block::Frame const frame(block);
        float* const up = block.allocate(3);
        float *const down = up + kBlockSize, *const divisor = down + kBlockSize;
        Quern::forEachPosition(block.count(), [=, coordinate = block.positions().component[axis]](
                                                  int i) ZEL_ALWAYS_INLINE {
            Steps const steps = stepAround(coordinate[i]);
            up[i] = steps.up;
            down[i] = steps.down;
            divisor[i] = steps.divisor;
        });
        auto const valuesAt = [&](float const* moved) {
            auto values = block.result<Value>();
            auto positions = block.positions();
            positions.component[axis] = moved;
            block.withPositions(positions, [&](Block& there) { there.writeValues(node, values); });
            return values.columns;
        };
        auto const above = valuesAt(up);
        auto const below = valuesAt(down);
        for (std::size_t row = 0; row < kComponents<Value>; ++row)
            Quern::forEachPosition(block.count(),
                                   [=, f1 = above.component[row], f2 = below.component[row],
                                    to = write.component[3 * row + axis]](int i) ZEL_ALWAYS_INLINE {
                                       to[i] = differenceQuotient(f1[i], f2[i], divisor[i]);
                                   });
    }
}

template void differencesInBlock(Core::Fields::ScalarField const&, Block&,
                                 BlockResult<Core::Fields::ScalarField::Gradient>&);
template void differencesInBlock(Core::Fields::VectorField const&, Block&,
                                 BlockResult<Core::Fields::VectorField::Gradient>&);

}  // namespace zel::detail
