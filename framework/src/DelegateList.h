#pragma once

#include <kt/CDelegate.h>

#include <algorithm>

namespace Lyr {

// How the framework's Subscribe operations change a delegate's list. New entries join at the
// front, so that a fire (last entry first) calls subscribers in the order they subscribed.
template <typename Sig> void AddSubscriber(Kt::CDelegate<Sig>& delegate, const Kt::CFunctor<Sig>& functor)
{
    delegate.functors.push_front(functor);
}

template <typename Sig> void RemoveSubscriber(Kt::CDelegate<Sig>& delegate, const Kt::CFunctor<Sig>& functor)
{
    auto& list = delegate.functors;
    auto entry = std::find(list.begin(), list.end(), functor);
    if (entry != list.end())
        list.erase(entry);
}

} // namespace Lyr
