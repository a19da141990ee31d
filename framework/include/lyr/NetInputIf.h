#pragma once

#include <lyr/Export.h>

#include <lyr/NetInput.h>
#include <lyr/NetInputCounters.h>

#include <kt/CIpAddress.h>

#include <string>

namespace Lyr {

// A live capture from a network device.
class LYR_SHARED NetInputIf : public NetInput {
public:
    ~NetInputIf() override;
    virtual bool Configure(const std::string& deviceName, const Kt::CIpAddress& address, unsigned int port) = 0;
    virtual NetInputCounters GetCounters() = 0;
    virtual void ResetCounters() = 0;
};

} // namespace Lyr
