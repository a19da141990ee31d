#pragma once

#include "PcapNetInputIf.h"
#include "support/CaptureFiles.h"
#include "support/WaitableList.h"

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

struct Seen {
    std::vector<uint8_t> bytes;
    unsigned long long timestamp;
};

// A subscriber that keeps a copy of every frame it receives, for the test thread to wait on.
class Collector : public WaitableList<Seen> {
public:
    Kt::CFunctor<void(const Lyr::EthFrame&)> Functor()
    {
        return Subscriber([this](const Lyr::EthFrame& frame) { Add({Bytes(frame), frame.GetTimestamp()}); });
    }
};
