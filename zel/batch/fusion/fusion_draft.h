#pragma once

#include <array>
#include <cstddef>
#include <span>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fusion.h"
#include "zel/batch/fusion/register_plan.h"

namespace zel {

namespace detail {

/// A fusion under construction: its stages in the order in which they run, with the places of their
/// inputs. A node is added after its children, so that the result of one of them may still be in
/// the registers.
class FusionDraft {
public:
    static constexpr int kMostNodes = RegisterPlan::kMostNodes;

    explicit FusionDraft(Arena& memory) : m_memory(memory) {}

    /// Starts a new fusion.
    void begin(Aim aim);

    /// Takes a place for one more node, before its children are added. Returns false if there is
    /// none: the fusion has the most nodes that it may have; or the registers are in use, and so
    /// are all spill tiles.
    bool reserveNode();

    /// Adds the stage of a node that has a place. Returns its result.
    Operand addFormula(void const* self, FormulaStages const& stages,
                       std::span<Operand const> children);
    Operand addLeaf(void const* self, LeafStages const& stages);
    /// Adds a stage that reads a view as duals.
    Operand addDualView(void const* self, View view, Orvane::Math::float3 const& gradient);

    /// Adds a stage that reads the values and the gradients of a child.
    Operand addDualChild(ScalarChild const& child);

    /// Adds values that are in memory when the fusion runs. These have no stage, and need no place.
    Operand addView(void const* self, View view);
    Operand addChild(ScalarChild const& child);

    /// The number of places that were taken.
    int nodeCount() const { return m_nodeCount; }
    /// Whether some node found no place.
    bool isFull() const { return m_isFull; }
    /// Whether it asks the block for values of children without their gradients.
    bool asksForValues() const { return m_asksForValues; }

    /// The finished fusion, whose result is in the registers.
    Fusion* finish();

private:
    /// An array with room for `kMost` elements.
    template <class T, int kMost> struct List {
        std::array<T, kMost> elements;
        int count = 0;

        int add(T const& element) {
            elements[static_cast<unsigned>(count)] = element;
            return count++;
        }
        T& operator[](int i) { return elements[static_cast<unsigned>(i)]; }
    };

    int addStage(StageForms const& run, void const* self) {
        return m_stages.add({run, self, {}, nullptr});
    }
    Operand resultOf(int stage);
    void freeRegisters();
    float* spillTile(int number);
    template <class T, int kMost> std::span<T> copied(List<T, kMost> const& list);

    static constexpr int kMostOperands = 3 * kMostNodes;

    Arena& m_memory;
    Aim m_aim = Aim::kValues;
    List<Stage, RegisterPlan::kMostStages> m_stages;
    List<int, kMostNodes> m_leafStages;
    List<ViewOperand, kMostOperands> m_views;
    List<ChildOperand, kMostOperands> m_children;
    RegisterPlan m_registers;
    int m_nodeCount = 0;
    bool m_isFull = false;
    bool m_asksForValues = false;
    // Shared by all fusions, since only one at a time runs its stages. Allocated on first use.
    std::array<float*, RegisterPlan::kSpillTiles> m_spillTiles{};
};

}  // namespace detail
}  // namespace zel
