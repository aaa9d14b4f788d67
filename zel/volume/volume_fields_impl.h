#pragma once

#include <algorithm>
#include <exception>
#include <stdexcept>

#include "zel/field/differences.h"
#include "zel/field/math.h"
#include "zel/node/library_node_impl.h"
#include "zel/volume/volume_fields.h"
#include "zel/volume/volume_reader_impl.h"
#include "zel_platform/orvane_math_support/exception_message.h"
#include "zel_platform/quern_core/position_loop.h"
#include "zel_platform/shape_store/scene_units.h"

// The definitions of the volume nodes' bases, together with those of their reader, so that a value
// is one call.
namespace zel {

namespace detail {

/// Cancels the task group of the task that runs this code, if there is one.
void cancelEnclosingGroup();

/// The volume as a field of its own.
struct Unscaled {
    VolumeReader<float> const& reader;

    float eval(float3 const& position, long long /*index*/) const { return reader.value(position); }
};

}  // namespace detail

template <class Self, class Interface>
VolumeNode<Self, Interface>::VolumeNode(Quern::String const& channelName, SamplerType type)
    : reader(std::make_unique<detail::VolumeReader<Value>>(channelName, type)) {}

template <class Self, class Interface>
VolumeNode<Self, Interface>::VolumeNode(VolumeNode const& other)
    : NamedNode<Self, Interface>(other),
      reader(std::make_unique<detail::VolumeReader<Value>>(*other.reader)),
      usesExactGradient(other.usesExactGradient) {}

template <class Self, class Interface>
VolumeNode<Self, Interface>& VolumeNode<Self, Interface>::operator=(VolumeNode const& other) {
    NamedNode<Self, Interface>::operator=(other);
    *reader = *other.reader;
    usesExactGradient = other.usesExactGradient;
    return *this;
}

template <class Self, class Interface> VolumeNode<Self, Interface>::~VolumeNode() = default;

template <class Self, class Interface>
Quern::String VolumeNode<Self, Interface>::channelName() const {
    return reader->channelName();
}

template <class Self, class Interface>
SamplerType VolumeNode<Self, Interface>::samplerType() const {
    return reader->samplerType();
}

template <class Self, class Interface> bool VolumeNode<Self, Interface>::isBound() const {
    return reader->isBound();
}

template <class Self, class Interface>
void VolumeNode<Self, Interface>::copyVolume(VolumeNode const& other) {
    *reader = *other.reader;
}

/// The position in the volume at which a position of the node is looked up.
template <class Self, class Interface>
ZEL_ALWAYS_INLINE inline float3
VolumeNode<Self, Interface>::inVolume(float3 const& position) const {
    if constexpr (Self::kHasScale)
        return position * this->self().scale;
    else
        return position;
}

template <class Self, class Interface> bool VolumeNode<Self, Interface>::isScaled() const {
    if constexpr (Self::kHasScale)
        return this->self().scale != 1;
    else
        return false;
}

template <class Self, class Interface>
auto VolumeNode<Self, Interface>::eval(float3 const& position, long long /*index*/) const -> Value {
    return reader->value(inVolume(position));
}

template <class Self, class Interface>
auto VolumeNode<Self, Interface>::grad(float3 const& position, long long index) const -> Gradient {
    if (usesExactGradient) {
        Gradient gradient;
        reader->exactGradient(inVolume(position), gradient);
        if constexpr (Self::kHasScale)
            return gradient * this->self().scale;
        else
            return gradient;
    }
    if constexpr (std::is_same_v<Value, float>) {
        float3 const center = inVolume(position);
        float3 gradient;
        if (reader->gradient(center, gradient)) return gradient;
        // Around the position in the volume, so that the scale does not count twice.
        if (isScaled())
            return detail::gradientByDifferences<float3>(detail::Unscaled{*reader}, center, index);
    }
    return Interface::grad(position, index);
}

/// The positions of a block, in the volume.
template <class Self, class Interface>
Columns<float3> VolumeNode<Self, Interface>::blockInVolume(Block& block) const {
    if (!isScaled()) return block.positions();
    auto moved = block.result<float3>();
    mapBlock(
        block, moved, [this](float3 const& p) ZEL_ALWAYS_INLINE { return inVolume(p); },
        block.positions());
    return moved.columns;
}

template <class Self, class Interface>
void VolumeNode<Self, Interface>::blockValues(Block& block, BlockResult<Value>& out) const {
    if (usesExactGradient) {
        auto const values = out.writer();
        auto const both = [&](ColumnWriter<Gradient> const& gradients) {
            exactGradients(block, &values, gradients);
        };
        if (block.withGradients<Interface>(*this, both)) return;
    }
    Block::Frame const frame(block);
    reader->values(blockInVolume(block), block.count(), out.writer());
}

/// Sets the gradients at the positions of a block, and the values if `values` is not null.
template <class Self, class Interface>
void VolumeNode<Self, Interface>::exactGradients(Block& block, ColumnWriter<Value> const* values,
                                                 ColumnWriter<Gradient> const& out) const {
    Block::Frame const frame(block);
    reader->exactGradients(blockInVolume(block), block.count(), values, out);
    if constexpr (Self::kHasScale)
        for (float* const component : out.component)
            Quern::forEachPosition<true>(
                block.count(), [component, scale = this->self().scale](int i)
                                   ZEL_ALWAYS_INLINE { component[i] = component[i] * scale; });
}

template <class Self, class Interface>
void VolumeNode<Self, Interface>::blockGradients(Block& block, BlockResult<Gradient>& out) const {
    if (usesExactGradient) return exactGradients(block, nullptr, out.writer());
    if constexpr (std::is_same_v<Value, float>)
        if (reader->hasGradients()) {
            Block::Frame const frame(block);
            return reader->gradients(blockInVolume(block), block.count(), out.writer());
        }
    differencesInBlock(block, out);
}

/// Asks for the six values of a position in a row, not for those of all positions along one axis: a
/// sampler then mostly stays in its voxel.
template <class Self, class Interface>
void VolumeNode<Self, Interface>::differencesInBlock(Block& block,
                                                     BlockResult<Gradient>& out) const {
    constexpr int kProbes = 6, kPositions = kBlockSize / kProbes;
    // As in grad(): around the position in the volume, or around that of the node.
    constexpr bool kInVolume = std::is_same_v<Value, float>;
    auto const write = out.writer();
    Block::Frame const frame(block);
    Columns<float3> const centers = kInVolume ? blockInVolume(block) : block.positions();
    auto probes = block.result<float3>();
    auto values = block.result<Value>();
    float* const divisors = block.allocate();
    for (int first = 0; first < block.count(); first += kPositions) {
        int const count = std::min(block.count() - first, kPositions);
        auto const at = probes.writer();
        for (int i = 0; i < count; ++i)
            for (int axis = 0; axis < 3; ++axis) {
                float3 up = centers[first + i], down = up;
                auto const steps = detail::stepAround(up[axis]);
                up[axis] = steps.up;
                down[axis] = steps.down;
                int const probe = kProbes * i + 2 * axis;
                at.set(probe, kInVolume ? up : inVolume(up));
                at.set(probe + 1, kInVolume ? down : inVolume(down));
                divisors[3 * i + axis] = steps.divisor;
            }
        reader->values(probes.columns, kProbes * count, values.writer());
        for (unsigned row = 0; row < values.columns.component.size(); ++row) {
            float const* const f = values.columns.component[row];
            for (int n = 0; n < 3 * count; ++n)
                write.component[3 * row + static_cast<unsigned>(n % 3)][first + n / 3] =
                    detail::differenceQuotient(f[2 * n], f[2 * n + 1], divisors[n]);
        }
    }
}

template <class Self, class Interface>
BoundVolumeNode<Self, Interface>::BoundVolumeNode(Orvane::Object const& object,
                                                  Quern::String const& channelName,
                                                  SamplerType const& type)
    : VolumeNode<Self, Interface>(channelName, type) {
    try {
        this->reader->bind(object);
    } catch (...) {
        detail::cancelEnclosingGroup();
    }
}

template <class Self, class Interface>
void BoundVolumeNode<Self, Interface>::copy(Self const& other) {
    this->copyVolume(other);
}

template <class Self, class Interface>
TriggeredVolumeNode<Self, Interface>::TriggeredVolumeNode(Quern::String const& channelName,
                                                          SamplerType const& type)
    : VolumeNode<Self, Interface>(channelName, type) {}

template <class Self, class Interface>
bool TriggeredVolumeNode<Self, Interface>::is_triggerable() const {
    return true;
}

template <class Self, class Interface>
void TriggeredVolumeNode<Self, Interface>::apply_object(Orvane::Object const& object) {
    Quern::Any const unit = object.property(Vellum::sceneUnitsInMeters);
    if (auto const* const value = unit.get<float>()) scale = *value;
    if (this->reader->hasHalo()) return;
    try {
        this->reader->bind(object);
    } catch (std::exception const& error) {
        char const* const text = error.what() ? error.what() : "";
        if (!(Quern::StringView(text) == ORV::exceptionMessage)) throw std::runtime_error(text);
        detail::cancelEnclosingGroup();
    }
}

template <class Self, class Interface>
void TriggeredVolumeNode<Self, Interface>::copy(Self const& other) {
    this->copyVolume(other);
    scale = other.scale;
}

}  // namespace zel
