#pragma once

#include <lyr/BufferPool.h>
#include <lyr/NetInputIf.h>

#include <kt/CIpAddress.h>
#include <kt/CThread.h>

#include <pcap/pcap.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

// The capture filter for traffic to `address` (unless it is MinIpAddress) and `port` (unless 0),
// in libpcap's filter language; empty when neither is set.
std::string GenerateFilterExpression(const Kt::CIpAddress& address, unsigned int port);

// Live capture from a network device on a thread of its own. The thread opens the device, runs
// pcap_loop and hands every complete packet to the subscribers as a frame in a pool buffer; it
// opens again whenever the capture ends for any reason but Stop, and retries once a second while
// the device cannot be opened.
class PcapNetInputIf : public Lyr::NetInputIf {
public:
    PcapNetInputIf();
    ~PcapNetInputIf() override;

    void Start() override;
    // Ends the capture thread and closes the handle. Refused (with a message) on the capture
    // thread itself, that is from a subscriber: a thread cannot wait for its own end. A
    // subscriber may delete the instance, though: the capture then ends behind it.
    void Stop() override;
    bool Configure(const std::string& deviceName, const Kt::CIpAddress& address, unsigned int port) override;
    NetInputCounters GetCounters() override;
    void ResetCounters() override;

    // The packet path, on the capture thread. PcapLoopHandler is pcap_loop's callback, with the
    // instance as its user argument; no exception of a subscriber passes it into libpcap.
    void HandlePacket(const pcap_pkthdr* header, const unsigned char* packet);
    static void PcapLoopHandler(unsigned char* user, const pcap_pkthdr* header, const unsigned char* packet);

private:
    friend struct PcapNetInputIfProbe; // tests craft counter states through it

    bool OpenInterface();
    void CloseInterface();
    bool ReadInterface();
    bool EnterCapture();
    bool OpenFailed(const char* format);
    bool IsCaptureThread() const;
    void LeaveCaptureThread();

    pcap_t* pcapHandle = nullptr;
    std::string captureFilter;
    Lyr::BufferPool* bufferPool = nullptr;
    Kt::CThread* captureThread = nullptr;
    std::string interfaceName;
    std::atomic<unsigned long long> frameCount{0};
    std::atomic<unsigned long long> byteCount{0};
    std::atomic<unsigned long long> dropBaseline{0};
    std::mutex stateMutex;
    // Set (under stateMutex) while a Stop waits for the capture thread with the lock let go;
    // stopFinished tells waiting Start and Stop calls when it is over.
    bool bStopping = false;
    std::condition_variable stopFinished;
};
