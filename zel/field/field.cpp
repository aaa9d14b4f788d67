#include "zel/field/field.h"

#include "zel/field/graph_version.h"
#include "zel/field/version_report.h"

namespace zel {

namespace {

// Runs when the library is loaded. In a static library this source is linked into each program that
// has a field.
[[maybe_unused]] bool const reported = detail::reportVersion();

}  // namespace

FieldConstVisitor::FieldConstVisitor() = default;
FieldConstVisitor::FieldConstVisitor(FieldConstVisitor const&) = default;
FieldConstVisitor::~FieldConstVisitor() = default;
FieldConstVisitor& FieldConstVisitor::operator=(FieldConstVisitor const&) = default;

void FieldConstVisitor::operator()(Field const& /*node*/) {}

FieldVisitor::FieldVisitor() = default;
FieldVisitor::FieldVisitor(FieldVisitor const&) = default;
FieldVisitor::~FieldVisitor() = default;
FieldVisitor& FieldVisitor::operator=(FieldVisitor const&) = default;

void FieldVisitor::operator()(Field const& /*node*/) {}
void FieldVisitor::operator()(Field& /*node*/) {}

Field::Field() {
    detail::GraphVersions::noteConstruction(this);
}
Field::Field(Field const& /*other*/) {
    detail::GraphVersions::noteConstruction(this);
}
Field::~Field() = default;
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): there is nothing to assign
Field& Field::operator=(Field const& /*other*/) {
    // The classes derived from this one assign their members after it.
    detail::GraphVersions::noteChange();
    return *this;
}

void Field::accept(FieldConstVisitor& /*visitor*/) const {}
void Field::accept(FieldVisitor& /*visitor*/) {}
bool Field::is_triggerable() const {
    return false;
}
void Field::apply_object(Orvane::Object const& /*object*/) {}
// NOLINTNEXTLINE(performance-unnecessary-value-param): overriders keep the pointer
void Field::use_property_indices(Quern::Ptr<Quern::Array<long long>> /*indices*/) {}

void Field::listChildren(FieldConstVisitor& visitor) const {
    accept(visitor);
}

void Field::replaceChildren(ChildReplacer& replacer) {
    struct Visitor final : FieldVisitor {
        explicit Visitor(ChildReplacer& to) : replacer(to) {}
        using FieldVisitor::operator();
        void operator()(Field& child) override { replacer(child); }

        ChildReplacer& replacer;
    } visitor(replacer);
    accept(visitor);
}

bool Field::hasExactGradient() const {
    return false;
}
void Field::useExactGradient(ChildReplacer& replacer) {
    replaceChildren(replacer);
}

void Field::caccept(FieldConstVisitor& visitor) const {
    accept(visitor);
}

}  // namespace zel
