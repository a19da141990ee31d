#pragma once

#include <lyr/EthFrame.h>
#include <lyr/NetOutputIf.h>

#include <pcap/pcap.h>

#include <atomic>
#include <string>

// A network port that puts frames on the wire at their timestamps. Each frame becomes an event
// of the framework's scheduler; when it runs, the frame is injected into the open port, or given
// up (timeoutDelegate fires) when it would leave more than `timeout` microseconds late.
//
// Senders stay silent from ConfigState_Configuring to ConfigState_Ready: a frame sent while
// ConfigureIf replaces the port could meet a handle that is being closed.
class PcapNetOutputIf : public Lyr::NetOutputIf {
public:
    PcapNetOutputIf();
    ~PcapNetOutputIf() override;

    void SendFrame(const Lyr::EthFrame& frame) override;
    void ConfigureIf(const std::string& deviceName) override;
    void SetTimeout(unsigned long long limit) override;
    void SetSocketSendBufferSize(int bytes) override;

    // Returns once every frame handed to SendFrame has had its event.
    void WaitForPendingFrames();
    // The event of one frame; `schedulerValue` is its lateness as the scheduler measured it.
    void TransmitData(const Kt::CSlice<unsigned char>& slice, unsigned long long schedulerValue);

protected:
    void ClosePort();

    pcap_t* pcapHandle = nullptr;           // the open port; null when none is open
    std::atomic<unsigned int> pendingFrames{0}; // from the start of SendFrame to the end of the event
    unsigned long long timeout = 10000;     // read by the events, set by SetTimeout
    int sendBufferSize = 0;                 // SO_SNDBUF for the next ConfigureIf; 0 leaves it alone
};
