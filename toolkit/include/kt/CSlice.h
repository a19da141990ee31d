#pragma once

#include <kt/CPtrRef.h>

namespace Kt {

// A view on a run of elements whose life a shared owner guards. Copies share the elements and
// count a reference each; no operation copies an element.
template <typename T> class CSlice {
public:
    CPtrRef* owner = nullptr; // null: nothing counted, the elements outlive the slice by other means
    T* data = nullptr;
    unsigned int size = 0;

    CSlice() = default;

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for the framework, hosts and tests
    // A new view on elements of `owner`, taking a reference of its own.
    CSlice(CPtrRef* sharedOwner, T* first, unsigned int count) : owner(sharedOwner), data(first), size(count)
    {
        if (owner)
            owner->AddRef();
    }

    // Wraps the first reference of a freshly made block without counting it again.
    static CSlice Adopt(CPtrRef* newOwner, T* first, unsigned int count)
    {
        CSlice slice;
        slice.owner = newOwner;
        slice.data = first;
        slice.size = count;
        return slice;
    }
#endif

    CSlice(const CSlice& other) : owner(other.owner), data(other.data), size(other.size)
    {
        if (owner)
            owner->AddRef();
    }

    ~CSlice()
    {
        if (owner)
            owner->DelRef();
    }

    CSlice& operator=(const CSlice& other)
    {
        // Between slices of one owner (self-assignment included) no count changes. Otherwise the
        // old owner goes first: `other` still holds its reference on the new one.
        if (owner != other.owner) {
            if (owner)
                owner->DelRef();
            owner = other.owner;
            if (owner)
                owner->AddRef();
        }
        data = other.data;
        size = other.size;
        return *this;
    }

    // Same owner and start, `newSize` elements. Not checked against `size`: the caller answers for
    // the room behind `data`.
    CSlice Prefix(unsigned int newSize) const
    {
        CSlice prefix(*this);
        prefix.size = newSize;
        return prefix;
    }
};

} // namespace Kt
