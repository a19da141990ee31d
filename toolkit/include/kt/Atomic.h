#pragma once

namespace Kt {

// Reference-count arithmetic. Kept out of line in the toolkit so that every module shares
// one implementation of the memory ordering.
struct Atomic {
    // Adds one; returns the new value.
    template <typename T> static T Increment(T volatile* value);
    // Subtracts one; returns the new value. Callers free what the word counts when it is 0.
    template <typename T> static T Decrement(T volatile* value);
};

extern template unsigned int Atomic::Increment<unsigned int>(unsigned int volatile*);
extern template unsigned int Atomic::Decrement<unsigned int>(unsigned int volatile*);

} // namespace Kt
