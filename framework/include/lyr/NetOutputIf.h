#pragma once

#include <lyr/Export.h>

#include <kt/CDelegate.h>

#include <string>

namespace Lyr {

class EthFrame;

// A network port that transmits frames at their timestamps.
class LYR_SHARED NetOutputIf {
public:
    enum ConfigState_e { ConfigState_Ready = 0, ConfigState_Configuring = 1, ConfigState_Closing = 2 };
    using ConfigStateFunctor = Kt::CFunctor<void(ConfigState_e)>;
    using TimeoutFunctor = Kt::CFunctor<void()>;

    NetOutputIf();
    virtual ~NetOutputIf();

    virtual void SendFrame(const EthFrame& frame) = 0;
    virtual void ConfigureIf(const std::string& deviceName) = 0;
    virtual void SubscribeConfigState(const ConfigStateFunctor& functor);
    virtual void UnsubscribeConfigState(const ConfigStateFunctor& functor);
    virtual void SetTimeout(unsigned long long limit) = 0;
    virtual void SetSocketSendBufferSize(int bytes) = 0;

#ifndef LYR_CONTRACT_ONLY // beyond the plug-in's contract: for hosts and tests
    // Hosts hear of frames given up as late here. Subscribe while no frame is pending: the list
    // is read without a lock on the scheduler's thread.
    void SubscribeTimeout(const TimeoutFunctor& functor);
    void UnsubscribeTimeout(const TimeoutFunctor& functor);

    // Before the first ConfigureIf this is ConfigState_Ready: nothing is being configured.
    ConfigState_e GetConfigState() const { return configState; }
#endif

protected:
    Kt::CDelegate<void(ConfigState_e)> configStateDelegate;
    ConfigState_e configState = ConfigState_Ready;
    Kt::CDelegate<void()> timeoutDelegate;
};

} // namespace Lyr
