#pragma once

#include <kt/CFunctor.h>

#include <list>

namespace Kt {

template <typename Sig> class CDelegate;

// A list of functors of one signature, all called by one Fire. It has no lock: the list changes
// only while no other thread fires it.
template <typename R, typename... Args> class CDelegate<R(Args...)> {
public:
    using Functor = CFunctor<R(Args...)>;
    using Iterator = typename std::list<Functor>::iterator;

    std::list<Functor> functors;

    CDelegate() = default;
    CDelegate(const CDelegate&) = delete;
    CDelegate& operator=(const CDelegate&) = delete;

    ~CDelegate()
    {
        while (!functors.empty())
            functors.pop_front();
    }

    void Fire(Args... args) { Recurse(functors.begin(), args...); }

    // Copies every functor before the first call, then calls from the last entry to the first.
    // The copies live in the recursion's frames, so a functor that removes itself (or another)
    // still runs with its holder alive, and the fire allocates nothing.
    void Recurse(Iterator it, Args... args)
    {
        if (it == functors.end())
            return;
        Functor local(*it);
        ++it;
        Recurse(it, args...);
        local(args...);
    }
};

} // namespace Kt
