#include "binder.h"

void Binder::operator()(zel::Field& node) {
    if (node.is_triggerable()) {
        node.apply_object(object);
        if (indices) node.use_property_indices(indices);
        ++bound;
    }
    node.accept(*this);
}
