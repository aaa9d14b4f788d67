#include "zel_scene/schema.h"

#include <charconv>

#include "zel_scene/json.h"
#include "zel_scene/nlohmann_json.h"
#include "zel_scene/node_class.h"
#include "zel_scene/value_text.h"

namespace zel {

namespace {

using Json = nlohmann::ordered_json;

Json reference(std::string const& name) {
    return {{"$ref", "#/definitions/" + name}};
}

Json arrayOf(char const* name, int count) {
    return {
        {"type", "array"}, {"items", reference(name)}, {"minItems", count}, {"maxItems", count}};
}

/// The names of the definitions, by kind.
char const* nameOf(ValueKind kind) {
    switch (kind) {
    case ValueKind::kNone:
    case ValueKind::kBool:
        return "boolean";
    case ValueKind::kInteger:
        return "integer";
    case ValueKind::kFloat:
    case ValueKind::kDouble:
        return "number";
    case ValueKind::kVector:
        return "vector";
    case ValueKind::kQuaternion:
        return "rotation";
    case ValueKind::kUnitVector:
        return "direction";
    case ValueKind::kString:
        return "string";
    case ValueKind::kSampler:
        return "sampler";
    case ValueKind::kCurve:
        return "curve";
    case ValueKind::kVectors:
        return "vectors";
    case ValueKind::kScalarField:
        return "scalarField";
    case ValueKind::kVectorField:
        break;
    }
    return "vectorField";
}

Json values() {
    Json const extrapolation = {{"enum", {"constant", "linear", "cycle", "cycleWithOffset"}}};
    Json all;
    all["boolean"] = {{"type", "boolean"}};
    all["integer"] = {{"type", "integer"}};
    all["string"] = {{"type", "string"}};
    all["number"] = {{"anyOf",
                      {{{"type", "number"}},
                       {{"type", "string"}, {"pattern", "^(inf|-inf|nan|nan:[0-9a-fA-F]+)$"}}}}};
    all["vector"] = arrayOf("number", 3);
    all["vectors"] = {{"type", "array"}, {"items", reference("vector")}};
    all["rotation"] = {{"description", "A rotation vector, or a quaternion [x, y, z, w]."},
                       {"anyOf", {reference("vector"), arrayOf("number", 4)}}};
    all["direction"] = {{"description", "Is divided by its length, unless it is a \"unit\"."},
                        {"anyOf",
                         {reference("vector"),
                          {{"type", "object"},
                           {"properties", {{"unit", reference("vector")}}},
                           {"required", {"unit"}},
                           {"additionalProperties", false}}}}};
    all["sampler"] = {
        {"anyOf", {{{"enum", {"linear", "cubicC0", "cubicC1"}}}, {{"type", "integer"}}}}};
    all["key"] = {
        {"description", "[x, value, inSlope, outSlope, segment]; see docs/scenes.md."},
        {"type", "array"},
        {"items", {{"anyOf", {reference("number"), {{"enum", {"constant", "linear", "cubic"}}}}}}},
        {"minItems", 2},
        {"maxItems", 5}};
    all["curve"] = {{"type", "object"},
                    {"properties",
                     {{"keys", {{"type", "array"}, {"items", reference("key")}}},
                      {"before", extrapolation},
                      {"after", extrapolation}}},
                    {"additionalProperties", false}};
    return all;
}

/// A default value. The parser would read fractions by the decimal point of the locale.
Json jsonOf(Value const& value) {
    if (auto const* const vector = std::get_if<float3>(&value))
        return {jsonOf(vector->x), jsonOf(vector->y), jsonOf(vector->z)};
    std::string text;
    detail::appendJson(text, value);
    bool const isNumber =
        std::holds_alternative<float>(value) || std::holds_alternative<double>(value);
    if (!isNumber || text.find('.') == std::string::npos) return Json::parse(text);
    double number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

/// All names by which files may call a class.
std::vector<std::string> namesOf(NodeClass const& one) {
    std::vector<std::string> names{one.name, "zel::" + one.name};
    for (std::string const prefix : {"ScalarField", "VectorField"})
        if (one.name.starts_with(prefix)) names.push_back(one.name.substr(prefix.size()));
    return names;
}

Json definitionOf(NodeClass const& one) {
    Json properties = {{"type", {{"enum", namesOf(one)}}}, {"comment", true}};
    Json required = {"type"};
    Json children = Json::array();
    Json instead;  // what must not stand beside "children"
    for (ParameterInfo const& parameter : one.parameters) {
        Json property = reference(nameOf(parameter.kind));
        if (parameter.kind == ValueKind::kInteger)
            property = {
                {"allOf", {property}}, {"minimum", parameter.least}, {"maximum", parameter.most}};
        bool const isReplaced = one.chain != Chain::kNone && isField(parameter.kind);
        if (isReplaced) instead[parameter.name] = false;
        if (parameter.defaultValue.index() != 0) {
            property = {{"allOf", {property}}, {"default", jsonOf(parameter.defaultValue)}};
        } else if (isReplaced) {
            children.push_back(parameter.name);
        } else {
            required.push_back(parameter.name);
        }
        properties[parameter.name] = property;
    }
    Json definition = {{"type", "object"}};
    if (one.chain != Chain::kNone) {
        properties["children"] = {
            {"type", "array"},
            {"items", reference(one.isScalar ? "scalarField" : "vectorField")},
            {"minItems", 1}};
        definition["if"] = {{"required", {"children"}}};
        definition["then"] = {{"properties", instead}};
        definition["else"] = {{"required", children}};
    }
    definition["properties"] = properties;
    definition["required"] = required;
    definition["additionalProperties"] = false;
    return definition;
}

/// A node of one kind. The name of the class chooses the definition, so that a validator looks at
/// the children once, not once for each class. A class of a user may have the name of a value,
/// such as "curve": so the definitions of classes have no names.
Json nodeOf(bool isScalar) {
    Json names = Json::array();
    Json choices = Json::array();
    for (NodeClass const* const one : nodeClasses()) {
        if (one->isScalar != isScalar) continue;
        for (std::string const& name : namesOf(*one)) names.push_back(name);
        choices.push_back({{"if", {{"properties", {{"type", {{"enum", namesOf(*one)}}}}}}},
                           {"then", definitionOf(*one)}});
    }
    return {{"type", "object"},
            {"properties", {{"type", {{"enum", names}}}}},
            {"required", {"type"}},
            {"allOf", choices}};
}

}  // namespace

std::string sceneSchema() {
    Json definitions = values();
    definitions["scalarField"] = {
        {"anyOf", {{{"type", "number"}}, {{"type", "string"}}, reference("scalarNode")}}};
    definitions["vectorField"] = {
        {"anyOf", {reference("vector"), {{"type", "string"}}, reference("vectorNode")}}};
    definitions["field"] = {{"anyOf", {reference("scalarField"), reference("vectorField")}}};
    definitions["scalarNode"] = nodeOf(true);
    definitions["vectorNode"] = nodeOf(false);

    Json const schema = {
        {"$schema", "http://json-schema.org/draft-07/schema#"},
        {"title", "A scene of ZEL"},
        {"type", "object"},
        {"properties",
         {{"version", {{"const", kSceneVersion}}},
          {"root", reference("field")},
          {"nodes", {{"type", "object"}, {"additionalProperties", reference("field")}}},
          {"comment", true},
          {"$schema", true}}},
        {"required", {"version", "root"}},
        {"additionalProperties", false},
        {"definitions", definitions}};
    return schema.dump(1) + '\n';
}

}  // namespace zel
