#pragma once

#include "quern_core/ptr.h"

namespace Quern {

namespace Internal {
template <class To, class From> struct DynamicCast;
}  // namespace Internal

/// All pointers are friends of one another; this one only carries an object over to the pointer of
/// a derived class.
template <class To, class From> class Ptr<Internal::DynamicCast<To, From>> {
public:
    static Ptr<To> cast(Ptr<From> const& from) {
        Ptr<To> to;
        if (To* const object = dynamic_cast<To*>(from.get())) {
            from.block->acquire();
            to.pointee = object;
            to.block = from.block;
        }
        return to;
    }
};

/// A pointer that shares the object of `from`, if that is a To; else an empty pointer.
template <class To, class From> Ptr<To> dynamicPtrCast(Ptr<From> const& from) {
    return Ptr<Internal::DynamicCast<To, From>>::cast(from);
}

}  // namespace Quern
