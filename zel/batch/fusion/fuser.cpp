#include "zel/batch/fusion/fuser.h"

namespace Core::Fields {

void ScalarField::fuse(zel::Fuser& fuser) const {
    fuser.hideChildren();
}

void VectorField::fuse(zel::Fuser& fuser) const {
    fuser.hideChildren();
}

}  // namespace Core::Fields
