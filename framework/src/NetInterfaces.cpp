#include "DelegateList.h"

#include <lyr/NetFile.h>
#include <lyr/NetInput.h>
#include <lyr/NetInputIf.h>
#include <lyr/NetOutputIf.h>

namespace Lyr {

NetFile::~NetFile() = default;

NetInput::NetInput() = default;
NetInput::~NetInput() = default;

void NetInput::Subscribe(const FrameFunctor& functor)
{
    AddSubscriber(frameDelegate, functor);
}

void NetInput::Unsubscribe(const FrameFunctor& functor)
{
    RemoveSubscriber(frameDelegate, functor);
}

NetInputIf::~NetInputIf() = default;

NetOutputIf::NetOutputIf() = default;
NetOutputIf::~NetOutputIf() = default;

void NetOutputIf::SubscribeConfigState(const ConfigStateFunctor& functor)
{
    AddSubscriber(configStateDelegate, functor);
}

void NetOutputIf::UnsubscribeConfigState(const ConfigStateFunctor& functor)
{
    RemoveSubscriber(configStateDelegate, functor);
}

void NetOutputIf::SubscribeTimeout(const TimeoutFunctor& functor)
{
    AddSubscriber(timeoutDelegate, functor);
}

void NetOutputIf::UnsubscribeTimeout(const TimeoutFunctor& functor)
{
    RemoveSubscriber(timeoutDelegate, functor);
}

} // namespace Lyr
