#pragma once

#include <kt/CPtrRef.h>

#include <new>
#include <type_traits>
#include <utility>

namespace Kt {

template <typename Sig> class CFunctor;

// A callable of fixed size: a plain wrapper function, the object it is called on, and an optional
// reference-count block that keeps that object alive.
template <typename R, typename... Args> class CFunctor<R(Args...)> {
public:
    using WrapperFn = R (*)(const void* target, Args...);

    WrapperFn wrapper = nullptr;
    CPtrRef* holder = nullptr; // null: the functor owns nothing
    const void* target = nullptr;

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for the framework, hosts and tests
    CFunctor() = default;
#endif

    // Takes over the first reference of `adoptedHolder`, if any.
    CFunctor(WrapperFn fn, CPtrRef* adoptedHolder, const void* object)
        : wrapper(fn), holder(adoptedHolder), target(object)
    {
    }

    CFunctor(const CFunctor& other) : wrapper(other.wrapper), holder(other.holder), target(other.target)
    {
        if (holder)
            holder->AddRef();
    }

#ifdef LYR_CONTRACT_ONLY
    CFunctor& operator=(const CFunctor&) = delete; // not the implicit one, which would miscount
#else
    CFunctor& operator=(const CFunctor& other)
    {
        if (other.holder)
            other.holder->AddRef();
        if (holder)
            holder->DelRef();
        wrapper = other.wrapper;
        holder = other.holder;
        target = other.target;
        return *this;
    }
#endif

    ~CFunctor()
    {
        if (holder)
            holder->DelRef();
    }

    R operator()(Args... args) const { return wrapper(target, std::forward<Args>(args)...); }

#ifndef LYR_CONTRACT_ONLY
    // Two functors match when they would make the same call: same wrapper on the same object.
    // Copies of one functor therefore match, and Unsubscribe takes a copy of what was subscribed.
    bool operator==(const CFunctor& other) const { return wrapper == other.wrapper && target == other.target; }
    bool operator!=(const CFunctor& other) const { return !(*this == other); }
#endif
};

namespace INTERNAL {

// Forwards a call without arguments to a member function of the object behind `target`.
template <typename T, typename R> struct CMemberFunctorFactory0 {
    template <R (T::*Method)()> static R Wrapper(const void* target)
    {
        return (static_cast<T*>(const_cast<void*>(target))->*Method)();
    }
};

#ifndef LYR_CONTRACT_ONLY
// A callable kept alive by its own reference-count block; the count stands first, so the block
// and its CPtrRef share an address.
template <typename F> struct CFunctorBlock {
    CPtrRef ref;
    F callable;

    explicit CFunctorBlock(F&& f) : ref{1, &Destroy}, callable(std::move(f)) {}

    static void Destroy(CPtrRef* block) { delete reinterpret_cast<CFunctorBlock*>(block); }

    template <typename R, typename... Args> static R Call(const void* target, Args... args)
    {
        auto* self = static_cast<CFunctorBlock*>(const_cast<void*>(target));
        return self->callable(std::forward<Args>(args)...);
    }
};
#endif

} // namespace INTERNAL

// A functor that calls `Method` on `object` and keeps nothing alive: the object must outlive it.
template <typename T, typename R, R (T::*Method)()> CFunctor<R()> MakeMemberFunctor0(T* object)
{
    return CFunctor<R()>(&INTERNAL::CMemberFunctorFactory0<T, R>::template Wrapper<Method>, nullptr, object);
}

#ifndef LYR_CONTRACT_ONLY
// A functor that owns a copy of `callable` (a lambda, say) through a reference-count block.
template <typename Sig, typename F> CFunctor<Sig> MakeFunctor(F callable);

template <typename R, typename... Args, typename F> CFunctor<R(Args...)> MakeFunctorImpl(F&& callable, R (*)(Args...))
{
    using Block = INTERNAL::CFunctorBlock<std::decay_t<F>>;
    auto* block = new Block(std::forward<F>(callable));
    return CFunctor<R(Args...)>(&Block::template Call<R, Args...>, &block->ref, block);
}

template <typename Sig, typename F> CFunctor<Sig> MakeFunctor(F callable)
{
    return MakeFunctorImpl(std::move(callable), static_cast<Sig*>(nullptr));
}
#endif

} // namespace Kt
