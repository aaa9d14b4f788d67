#pragma once

#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <typeinfo>
#include <variant>
#include <vector>

#include "zel/node/node.h"
#include "zel_platform/orvane_geometry/sampler_type.h"
#include "zel_platform/orvane_math/fcurve.h"
#include "zel_platform/quern_core/array.h"
#include "zel_scene/api.h"

// What the library knows of node classes: their names, and those of their parameters. All of it
// comes from the `parameters` of the classes; see zel/node/parameter.h, and register_node.h for
// classes of a user.
namespace zel {

/// The root of a tree, of a scalar or of a vector field.
using Tree = std::variant<ScalarPtr, VectorPtr>;

/// The value of a parameter. Children are the pointers to their nodes.
using Value = std::variant<std::monostate, bool, std::int64_t, float, double, float3, float4,
                           UnitVector, Quern::String, Orvane::Geometry::Query::SamplerType,
                           Quern::Ptr<Orvane::Math::FCurve>, Quern::Ptr<Quern::Array<float3>>,
                           ScalarPtr, VectorPtr>;

/// The type of a parameter, by the alternative of Value. Integers of all sizes are `kInteger`.
enum class ValueKind : std::uint8_t {
    kNone,
    kBool,
    kInteger,
    kFloat,
    kDouble,
    kVector,
    kQuaternion,
    kUnitVector,
    kString,
    kSampler,
    kCurve,
    kVectors,
    kScalarField,
    kVectorField
};

inline ValueKind kindOf(Value const& value) {
    return static_cast<ValueKind>(value.index());
}
constexpr bool isField(ValueKind kind) {
    return kind == ValueKind::kScalarField || kind == ValueKind::kVectorField;
}

struct ParameterInfo {
    std::string name;
    ValueKind kind = ValueKind::kNone;
    /// Empty if the parameter must be given. The default of a child is the value of a constant.
    Value defaultValue;
    /// The range of an integer.
    std::int64_t least = std::numeric_limits<std::int64_t>::min();
    std::int64_t most = std::numeric_limits<std::int64_t>::max();
};

/// A registered class of nodes.
struct NodeClass {
    std::string name;
    std::type_info const* type = nullptr;
    bool isScalar = false;
    Chain chain = Chain::kNone;
    /// In the order of the constructor. A class that has two gradients also has the parameter
    /// `exactGradient`, which withExactGradients() sets.
    std::vector<ParameterInfo> parameters;

    /// Appends the values of a node's parameters. The node must be exactly of this class.
    void (*read)(Field const& node, std::vector<Value>& values) = nullptr;
    /// Makes a node from values of the kinds of the parameters, which it may take over. Passes on
    /// the exceptions of the constructor, and throws std::invalid_argument for a child that is not
    /// of the class that the constructor asks for. `object` is for classes that bind in their
    /// constructor.
    Tree (*make)(std::span<Value> values, Orvane::Object const& object) = nullptr;
    /// Whether a node is bound; null if the class does not tell.
    bool (*isBound)(Field const& node) = nullptr;
};

/// The class of that name, or null. Names of library classes are without their namespace, such as
/// "ScalarFieldAdd". Any number of threads may look classes up, also while others register some. A
/// class stays where it is until the program ends.
ZEL_SCENE_API NodeClass const* findNodeClass(std::string_view name);

/// The class of a node, or null if it is not registered. A class derived from a registered one is
/// another class.
ZEL_SCENE_API NodeClass const* findNodeClass(Field const& node);

/// All registered classes in the order of their names.
ZEL_SCENE_API std::vector<NodeClass const*> nodeClasses();

/// Registers a class; registerNode() in register_node.h makes it. Throws std::invalid_argument if
/// the name is empty, taken, not UTF-8 or begins with "zel::", or if it is another class without
/// the prefix "ScalarField" or "VectorField", such as "Sphere", or the other way round, since files
/// may leave these out; if the class has another name already; or if the name of a parameter is
/// empty, not UTF-8, appears twice, or is one of "type", "children" and "comment", which files use.
/// The name "exactGradient" is that of a parameter of type bool which is false by default.
ZEL_SCENE_API void addNodeClass(NodeClass added);

}  // namespace zel
