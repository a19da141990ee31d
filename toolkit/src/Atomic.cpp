#include <kt/Atomic.h>

namespace Kt {

template <typename T> T Atomic::Increment(T volatile* value)
{
    return __atomic_add_fetch(value, 1, __ATOMIC_SEQ_CST);
}

template <typename T> T Atomic::Decrement(T volatile* value)
{
    return __atomic_sub_fetch(value, 1, __ATOMIC_SEQ_CST);
}

template unsigned int Atomic::Increment<unsigned int>(unsigned int volatile*);
template unsigned int Atomic::Decrement<unsigned int>(unsigned int volatile*);

} // namespace Kt
