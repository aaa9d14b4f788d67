#include <algorithm>
#include <new>
#include <stdexcept>
#include <unordered_map>

#include "zel/scalar/arithmetic.h"
#include "zel/vector/arithmetic.h"
#include "zel_platform/orvane_geometry/object.h"
#include "zel_scene/json.h"
#include "zel_scene/json_text.h"
#include "zel_scene/nearest.h"
#include "zel_scene/shown_text.h"
#include "zel_scene/value_reader.h"
#include "zel_scene/value_text.h"

namespace zel {

namespace {

using detail::JsonText;
using detail::refuse;
using Type = JsonText::Type;

constexpr std::uint32_t kNone = JsonText::kNone;

/// The interface that a place asks for.
enum class Wanted { kScalar, kVector, kAny };

char const* wantedText(Wanted wanted) {
    switch (wanted) {
    case Wanted::kScalar:
        return detail::wantedText(ValueKind::kScalarField);
    case Wanted::kVector:
        return detail::wantedText(ValueKind::kVectorField);
    case Wanted::kAny:
        break;
    }
    return "a field";
}

bool fits(NodeClass const& one, Wanted wanted) {
    return wanted == Wanted::kAny || one.isScalar == (wanted == Wanted::kScalar);
}

/// Finds classes by the names that files use, and keeps the answers.
class ClassNames {
public:
    NodeClass const& find(JsonText const& json, std::uint32_t at, Wanted wanted) {
        if (json[at].type != Type::kString) refuse(json, at, "the name of a class");
        std::string_view const name = json.text(json[at]);
        auto& known = m_known[static_cast<std::size_t>(wanted)];
        if (auto const found = known.find(name); found != known.end()) return *found->second;
        NodeClass const& found = search(json, at, wanted);
        known.emplace(name, &found);
        return found;
    }

private:
    static NodeClass const& search(JsonText const& json, std::uint32_t at, Wanted wanted) {
        std::string const name(json.text(json[at]));
        std::string_view const bare =
            std::string_view(name).substr(name.starts_with("zel::") ? 5 : 0);
        auto const refuseKind = [&](NodeClass const& one) {
            throw SceneError(json.path(at),
                             std::string("wanted the class of ") + wantedText(wanted) + ", found " +
                                 one.name + ", of " +
                                 wantedText(one.isScalar ? Wanted::kScalar : Wanted::kVector));
        };
        if (auto const* const exact = findNodeClass(bare)) {
            if (!fits(*exact, wanted)) refuseKind(*exact);
            return *exact;
        }
        std::vector<NodeClass const*> candidates;
        NodeClass const* ofOtherKind = nullptr;
        for (char const* const prefix : {"ScalarField", "VectorField"}) {
            auto const* const one = findNodeClass(prefix + name);
            if (one && fits(*one, wanted)) candidates.push_back(one);
            if (one && !fits(*one, wanted)) ofOtherKind = one;
        }
        if (candidates.size() == 1) return *candidates[0];
        if (candidates.size() > 1)
            throw SceneError(json.path(at), '"' + name + "\" may be " + candidates[0]->name +
                                                " or " + candidates[1]->name);
        if (ofOtherKind) refuseKind(*ofOtherKind);
        std::vector<std::string_view> names;
        for (NodeClass const* const one : nodeClasses()) {
            if (!fits(*one, wanted)) continue;
            names.push_back(one->name);
            for (std::string_view const prefix : {"ScalarField", "VectorField"})
                if (one->name.starts_with(prefix))
                    names.push_back(std::string_view(one->name).substr(prefix.size()));
        }
        throw SceneError(json.path(at), std::string("wanted the class of ") + wantedText(wanted) +
                                            ", found \"" + detail::shortened(name) + '"' +
                                            detail::didYouMean(bare, names));
    }

    std::unordered_map<std::string_view, NodeClass const*> m_known[3];
};

/// Makes the nodes of a file, descendants first. Its own stack takes the place of the call stack.
class Reader {
public:
    Reader(std::string_view text, SceneLimits const& limits, Orvane::Object const* object)
        : m_limits(limits), m_object(object ? *object : m_noObject),
          // A level of a tree takes an object, and an array around it if it is one of many.
          m_json(text, limits.bytes, 2 * std::min(limits.depth, std::size_t{1} << 30) + 16) {}

    Tree read(Wanted wanted) {
        std::uint32_t const root = readTop();
        begin(root, wanted);
        while (!m_frames.empty()) step();
        Value& built = m_built.back().value;
        if (auto* const scalar = std::get_if<ScalarPtr>(&built)) return std::move(*scalar);
        return std::get<VectorPtr>(std::move(built));
    }

private:
    /// A value that is ready to be given to its node, and the levels of the tree below it.
    struct Built {
        Value value;
        std::size_t depth = 0;
    };
    /// A node whose children are being made: the last of m_built are what it has so far.
    struct Frame {
        std::uint32_t item;
        NodeClass const* nodeClass;
        std::size_t firstBuilt;
        std::size_t firstMember;  // into m_members: the items of the parameters
        std::uint32_t next;       // the next parameter, or the item of the next of `children`
        bool isChain;
        std::size_t definition;  // the entry of the table that it is; kNoDefinition for others
    };
    /// An entry of "nodes".
    struct Definition {
        std::uint32_t item = kNone;
        enum class State { kUnread, kReading, kRead } state = State::kUnread;
        Built built;
    };
    static constexpr std::size_t kNoDefinition = ~std::size_t{0};

    std::uint32_t readTop() {
        if (m_json[0].type != Type::kObject) refuse(m_json, 0, "an object with a member \"root\"");
        std::uint32_t root = kNone;
        std::uint32_t version = kNone;
        std::uint32_t nodes = kNone;
        constexpr std::string_view kNames[] = {"version", "root", "nodes", "comment", "$schema"};
        std::uint32_t comment = kNone;
        std::uint32_t schema = kNone;
        std::uint32_t* const members[] = {&version, &root, &nodes, &comment, &schema};
        for (std::uint32_t i = m_json[0].firstChild; i != kNone; i = m_json[i].next) {
            auto const* const found =
                std::find(std::begin(kNames), std::end(kNames), m_json.key(m_json[i]));
            if (found == std::end(kNames))
                throw SceneError(m_json.path(i),
                                 "a scene has no such member" +
                                     detail::didYouMean(m_json.key(m_json[i]), kNames));
            setOnce(*members[found - kNames], i);
        }
        if (version == kNone)
            throw SceneError("", "wanted a member \"version\": " + std::to_string(kSceneVersion));
        if (m_json[version].type != Type::kNumber ||
            m_json.text(m_json[version]) != std::to_string(kSceneVersion))
            refuse(m_json, version, "the version " + std::to_string(kSceneVersion));
        if (root == kNone) throw SceneError("", "wanted a member \"root\"");
        if (nodes != kNone) readDefinitions(nodes);
        return root;
    }

    void readDefinitions(std::uint32_t nodes) {
        if (m_json[nodes].type != Type::kObject) refuse(m_json, nodes, "an object of nodes");
        m_definitions.resize(m_json[nodes].childCount);
        std::size_t number = 0;
        for (std::uint32_t i = m_json[nodes].firstChild; i != kNone; i = m_json[i].next) {
            if (!m_definitionOf.emplace(m_json.key(m_json[i]), number).second)
                throw SceneError(m_json.path(i), "this name is there twice");
            m_definitions[number++].item = i;
        }
    }

    void setOnce(std::uint32_t& member, std::uint32_t item) const {
        if (member != kNone) throw SceneError(m_json.path(item), "this member is there twice");
        member = item;
    }

    /// Appends to m_built what stands at a place, or begins a node that will do so.
    void begin(std::uint32_t at, Wanted wanted) {
        if (m_json[at].type == Type::kString) return beginReference(at, wanted);
        beginNode(at, wanted, kNoDefinition);
    }

    void beginNode(std::uint32_t at, Wanted wanted, std::size_t definition) {
        if (m_json[at].type == Type::kNumber && wanted != Wanted::kVector)
            return finish({constant(detail::readFloat(m_json, at), at), 1}, definition);
        if (m_json[at].type == Type::kArray && wanted != Wanted::kScalar)
            return finish({constant(detail::readVector(m_json, at), at), 1}, definition);
        if (m_json[at].type != Type::kObject) {
            char const* const forms =
                wanted == Wanted::kScalar   ? ": a number, a name, or an object with a \"type\""
                : wanted == Wanted::kVector ? ": [x, y, z], a name, or an object with a \"type\""
                                            : ": a number, [x, y, z], or an object with a \"type\"";
            refuse(m_json, at, std::string(wantedText(wanted)) + forms);
        }
        std::uint32_t type = kNone;
        std::uint32_t children = kNone;
        for (std::uint32_t i = m_json[at].firstChild; i != kNone; i = m_json[i].next) {
            std::string_view const key = m_json.key(m_json[i]);
            if (key == "type") setOnce(type, i);
            if (key == "children") setOnce(children, i);
        }
        if (type == kNone)
            throw SceneError(m_json.path(at), "wanted a member \"type\", the name of a class");
        NodeClass const& nodeClass = m_classes.find(m_json, type, wanted);
        Frame frame{at, &nodeClass, m_built.size(), m_members.size(), 0, false, definition};
        if (m_frames.size() >= m_limits.depth) refuseDepth(at);
        readMembers(frame, children != kNone && nodeClass.chain != Chain::kNone);
        if (children != kNone && nodeClass.chain != Chain::kNone) {
            if (m_json[children].type != Type::kArray || m_json[children].childCount == 0)
                refuse(m_json, children, "an array of at least one field");
            frame.isChain = true;
            frame.next = m_json[children].firstChild;
        }
        m_frames.push_back(frame);
    }

    /// Finds the items of the parameters, and appends them to m_members.
    void readMembers(Frame const& frame, bool isChain) {
        auto const& parameters = frame.nodeClass->parameters;
        m_members.resize(m_members.size() + parameters.size(), kNone);
        bool hasComment = false;
        for (std::uint32_t i = m_json[frame.item].firstChild; i != kNone; i = m_json[i].next) {
            std::string_view const key = m_json.key(m_json[i]);
            if (key == "type" || (isChain && key == "children")) continue;
            auto const found =
                std::find_if(parameters.begin(), parameters.end(),
                             [&](ParameterInfo const& parameter) { return parameter.name == key; });
            if (key == "comment") {
                if (hasComment) throw SceneError(m_json.path(i), "this member is there twice");
                hasComment = true;
            } else if (found == parameters.end()) {
                refuseMember(frame, i, isChain);
            } else if (isChain && isField(found->kind)) {
                throw SceneError(m_json.path(i), "the node has \"children\" already");
            } else {
                setOnce(m_members[frame.firstMember +
                                  static_cast<std::size_t>(found - parameters.begin())],
                        i);
            }
        }
    }

    [[noreturn]] void refuseMember(Frame const& frame, std::uint32_t item, bool isChain) const {
        std::vector<std::string_view> names;
        std::string list;
        for (ParameterInfo const& parameter : frame.nodeClass->parameters) {
            if (isChain && isField(parameter.kind)) continue;
            list += (list.empty() ? "" : ", ") + parameter.name;
            names.push_back(parameter.name);
        }
        std::string const nearest = detail::didYouMean(m_json.key(m_json[item]), names);
        throw SceneError(m_json.path(item), frame.nodeClass->name + " has no such parameter" +
                                                (nearest.empty() ? "." : nearest) + " It has " +
                                                (list.empty() ? "none" : list));
    }

    void beginReference(std::uint32_t at, Wanted wanted) {
        std::string_view const name = m_json.text(m_json[at]);
        auto const found = m_definitionOf.find(name);
        if (found == m_definitionOf.end()) {
            std::vector<std::string_view> names;
            for (auto const& [known, number] : m_definitionOf) names.push_back(known);
            throw SceneError(m_json.path(at), std::string("wanted ") + wantedText(wanted) +
                                                  ", found \"" + detail::shortened(name) +
                                                  "\", which is no name in \"nodes\"" +
                                                  detail::didYouMean(name, names));
        }
        Definition& definition = m_definitions[found->second];
        switch (definition.state) {
        case Definition::State::kReading:
            throw SceneError(m_json.path(at),
                             "the node \"" + detail::shortened(name) + "\" is its own descendant");
        case Definition::State::kRead:
            if (wanted != Wanted::kAny &&
                std::holds_alternative<ScalarPtr>(definition.built.value) !=
                    (wanted == Wanted::kScalar))
                throw SceneError(
                    m_json.path(at),
                    std::string("wanted ") + wantedText(wanted) + ", found \"" +
                        detail::shortened(name) + "\", " +
                        wantedText(wanted == Wanted::kScalar ? Wanted::kVector : Wanted::kScalar));
            m_built.push_back(definition.built);
            return;
        case Definition::State::kUnread:
            break;
        }
        if (m_json[definition.item].type == Type::kString)
            refuse(m_json, definition.item, "a node, not the name of another");
        definition.state = Definition::State::kReading;
        beginNode(definition.item, wanted, found->second);
    }

    /// Appends a value to m_built, and keeps it if it is an entry of the table.
    void finish(Built built, std::size_t definition) {
        if (definition != kNoDefinition) {
            m_definitions[definition].state = Definition::State::kRead;
            m_definitions[definition].built = built;
        }
        m_built.push_back(std::move(built));
    }

    /// Goes on with the innermost node: one more of its children, or the node itself.
    void step() {
        Frame& frame = m_frames.back();
        if (frame.isChain) {
            if (frame.next == kNone) return finishChain();
            std::uint32_t const child = frame.next;
            frame.next = m_json[child].next;
            return begin(child, frame.nodeClass->isScalar ? Wanted::kScalar : Wanted::kVector);
        }
        auto const& parameters = frame.nodeClass->parameters;
        while (frame.next < parameters.size()) {
            ParameterInfo const& parameter = parameters[frame.next];
            std::uint32_t const item = m_members[frame.firstMember + frame.next];
            ++frame.next;
            if (item != kNone && isField(parameter.kind))
                return begin(item, parameter.kind == ValueKind::kScalarField ? Wanted::kScalar
                                                                             : Wanted::kVector);
            m_built.push_back(item == kNone ? defaultOf(frame, parameter)
                                            : Built{detail::readValue(m_json, item, parameter), 0});
        }
        finishNode(frame.firstBuilt, frame);
        endFrame();
    }

    Built defaultOf(Frame const& frame, ParameterInfo const& parameter) {
        Value const& value = parameter.defaultValue;
        if (value.index() == 0)
            throw SceneError(m_json.path(frame.item), frame.nodeClass->name + " wants \"" +
                                                          parameter.name + "\", " +
                                                          detail::wantedText(parameter.kind));
        if (auto const* const number = std::get_if<float>(&value);
            number && isField(parameter.kind))
            return {constant(*number, frame.item), 1};
        if (auto const* const vector = std::get_if<float3>(&value);
            vector && isField(parameter.kind))
            return {constant(*vector, frame.item), 1};
        return {value, 0};
    }

    /// Replaces the built values from a place on by the node that they are the parameters of.
    void finishNode(std::size_t from, Frame const& frame) {
        countNode(frame.item);
        std::size_t depth = 0;
        m_values.clear();
        for (std::size_t i = from; i < m_built.size(); ++i) {
            depth = std::max(depth, m_built[i].depth);
            m_values.push_back(std::move(m_built[i].value));
        }
        if (++depth > m_limits.depth)
            refuseDepth(frame.item, frame.isChain && frame.nodeClass->chain == Chain::kLeft);
        m_built.resize(from);
        try {
            Tree made = frame.nodeClass->make(m_values, m_object);
            std::visit(
                [&](auto& node) {
                    m_built.push_back({Value(std::move(node)), depth});
                },
                made);
        } catch (std::bad_alloc const&) {
            throw;
        } catch (std::exception const& error) {
            throw SceneError(m_json.path(frame.item), error.what());
        }
    }

    void finishChain() {
        Frame const& frame = m_frames.back();
        // The parameters of each node: the same for all, but for the two children.
        std::vector<Value> common;
        std::vector<std::size_t> childAt;
        for (std::size_t i = 0; i < frame.nodeClass->parameters.size(); ++i) {
            ParameterInfo const& parameter = frame.nodeClass->parameters[i];
            std::uint32_t const item = m_members[frame.firstMember + i];
            if (isField(parameter.kind)) childAt.push_back(i);
            common.push_back(isField(parameter.kind) ? Value()
                             : item == kNone         ? defaultOf(frame, parameter).value
                                                     : detail::readValue(m_json, item, parameter));
        }
        std::vector<Built> level(
            std::make_move_iterator(m_built.begin() +
                                    static_cast<std::ptrdiff_t>(frame.firstBuilt)),
            std::make_move_iterator(m_built.end()));
        m_built.resize(frame.firstBuilt);
        auto const join = [&](Built& a, Built& b) {
            for (Value const& value : common) m_built.push_back({value, 0});
            m_built[frame.firstBuilt + childAt[0]] = std::move(a);
            m_built[frame.firstBuilt + childAt[1]] = std::move(b);
            finishNode(frame.firstBuilt, frame);
            Built joined = std::move(m_built.back());
            m_built.pop_back();
            return joined;
        };
        if (frame.nodeClass->chain == Chain::kLeft) {
            for (std::size_t i = 1; i < level.size(); ++i) level[0] = join(level[0], level[i]);
        } else {
            for (; level.size() > 1; level.resize((level.size() + 1) / 2))
                for (std::size_t i = 0; i < level.size(); i += 2)
                    level[i / 2] =
                        i + 1 < level.size() ? join(level[i], level[i + 1]) : std::move(level[i]);
        }
        m_built.push_back(std::move(level[0]));
        endFrame();
    }

    /// Ends the innermost frame, whose node is the last of m_built.
    void endFrame() {
        Frame const& frame = m_frames.back();
        m_members.resize(frame.firstMember);
        if (frame.definition != kNoDefinition) {
            m_definitions[frame.definition].state = Definition::State::kRead;
            m_definitions[frame.definition].built = m_built.back();
        }
        m_frames.pop_back();
    }

    Value constant(float value, std::uint32_t at) {
        countNode(at);
        return ScalarPtr(Quern::makePtr<ScalarFieldConstant>(value));
    }
    Value constant(float3 const& value, std::uint32_t at) {
        countNode(at);
        return VectorPtr(Quern::makePtr<VectorFieldConstant>(value));
    }

    void countNode(std::uint32_t at) {
        if (++m_nodeCount > m_limits.nodes)
            throw SceneError(m_json.path(at), "the scene has more nodes than the limit of " +
                                                  std::to_string(m_limits.nodes));
    }
    [[noreturn]] void refuseDepth(std::uint32_t at, bool isChain = false) const {
        throw SceneError(m_json.path(at),
                         "the tree is deeper than the limit of " + std::to_string(m_limits.depth) +
                             " levels" +
                             (isChain ? ": sums and products of many children have a level for "
                                        "each; divide them among several nodes"
                                      : ""));
    }

    SceneLimits m_limits;
    Orvane::Object m_noObject;
    Orvane::Object const& m_object;
    JsonText m_json;
    ClassNames m_classes;
    std::unordered_map<std::string_view, std::size_t> m_definitionOf;
    std::vector<Definition> m_definitions;
    std::vector<Frame> m_frames;
    std::vector<Built> m_built;
    std::vector<std::uint32_t> m_members;
    std::vector<Value> m_values;
    std::size_t m_nodeCount = 0;
};

}  // namespace

Tree fromJson(std::string_view text, SceneLimits const& limits, Orvane::Object const* object) {
    return Reader(text, limits, object).read(Wanted::kAny);
}

ScalarPtr scalarFromJson(std::string_view text, SceneLimits const& limits,
                         Orvane::Object const* object) {
    return std::get<ScalarPtr>(Reader(text, limits, object).read(Wanted::kScalar));
}

VectorPtr vectorFromJson(std::string_view text, SceneLimits const& limits,
                         Orvane::Object const* object) {
    return std::get<VectorPtr>(Reader(text, limits, object).read(Wanted::kVector));
}

}  // namespace zel
