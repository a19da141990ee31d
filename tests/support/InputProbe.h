#pragma once

#include "PcapNetInputIf.h"

#include <lyr/EthFrame.h>

#include <kt/CFunctor.h>

#include <functional>
#include <string>

// Reads and crafts the private state of a live input, for the cases that no traffic can bring
// about on demand (a drop baseline above libpcap's count) and for what Configure stored.
struct PcapNetInputIfProbe {
    static const std::string& Filter(PcapNetInputIf& input) { return input.captureFilter; }
    static const std::string& Device(PcapNetInputIf& input) { return input.interfaceName; }
    static unsigned long long Frames(PcapNetInputIf& input) { return input.frameCount; }
    static unsigned long long Bytes(PcapNetInputIf& input) { return input.byteCount; }
    static void SetDropBaseline(PcapNetInputIf& input, unsigned long long value) { input.dropBaseline = value; }
};

// A subscriber from any callable.
inline Kt::CFunctor<void(const Lyr::EthFrame&)> Subscriber(std::function<void(const Lyr::EthFrame&)> body)
{
    return Kt::MakeFunctor<void(const Lyr::EthFrame&)>(std::move(body));
}
