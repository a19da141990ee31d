#include "PcapNetOutputIf.h"

#include <lyr/PreciseScheduler.h>

#include <kt/CThread.h>
#include <kt/MyPrintf.h>

#include <sys/socket.h>

#include <functional>

namespace {

// Lowers the count of pending frames when it ends, unless told that the frame's event has
// taken that over. WaitForPendingFrames waits for the count to reach 0, so a frame whose event
// never comes (it could not be built or queued) or that ends by an exception must still be
// taken off it.
class PendingFrame {
public:
    explicit PendingFrame(std::atomic<unsigned int>& pendingFrames) : count(pendingFrames) {}
    ~PendingFrame()
    {
        if (!bHandedOver)
            count.fetch_sub(1);
    }
    PendingFrame(const PendingFrame&) = delete;
    PendingFrame& operator=(const PendingFrame&) = delete;

    void HandOver() { bHandedOver = true; }

private:
    std::atomic<unsigned int>& count;
    bool bHandedOver = false;
};

} // namespace

PcapNetOutputIf::PcapNetOutputIf()
{
    // Made now, the scheduler outlives a static instance of this class: statics end in the
    // reverse order of their making, and the instance's events need the scheduler to the end.
    Lyr::PreciseScheduler::GetInstance();
}

PcapNetOutputIf::~PcapNetOutputIf()
{
    configState = ConfigState_Closing;
    configStateDelegate.Fire(ConfigState_Closing);
    // The events hold a plain pointer to this object: none may remain when it goes.
    WaitForPendingFrames();
    ClosePort();
}

void PcapNetOutputIf::ConfigureIf(const std::string& deviceName)
{
    configState = ConfigState_Configuring;
    configStateDelegate.Fire(ConfigState_Configuring);
    // Frames already scheduled leave on the port they were sent to, before it closes.
    WaitForPendingFrames();
    ClosePort();
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    // The port only transmits. The snap length bounds what a handle captures, not what
    // pcap_inject sends, so 8192 (below MaxFrameSize) cuts no frame short; promiscuity and the
    // read timeout concern capture as well.
    pcapHandle = pcap_open_live(deviceName.c_str(), 8192, 0, -1, errbuf);
    if (!pcapHandle) {
        Kt::MyPrintf("Failed to open port for transmitting: %s\n", errbuf);
    } else if (sendBufferSize != 0) {
        // A negative size goes to the system as it is, and the result is not looked at: the
        // port works with whatever buffer the system grants. 4 is the size of the int that
        // SO_SNDBUF takes, on 32-bit ARM and x86-64 alike.
        setsockopt(pcap_fileno(pcapHandle), SOL_SOCKET, SO_SNDBUF, &sendBufferSize, 4);
    }
    configState = ConfigState_Ready;
    configStateDelegate.Fire(ConfigState_Ready);
}

void PcapNetOutputIf::ClosePort()
{
    if (pcapHandle) {
        pcap_close(pcapHandle);
        pcapHandle = nullptr;
    }
}

void PcapNetOutputIf::SetSocketSendBufferSize(int bytes)
{
    sendBufferSize = bytes;
}

void PcapNetOutputIf::SetTimeout(unsigned long long limit)
{
    timeout = limit;
}

void PcapNetOutputIf::WaitForPendingFrames()
{
    while (pendingFrames.load() != 0)
        Kt::CThread::Sleep(10);
}

void PcapNetOutputIf::SendFrame(const Lyr::EthFrame& frame)
{
    // Counted before anything else, so that the event can run (and lower it) at any moment.
    pendingFrames.fetch_add(1);
    PendingFrame pending(pendingFrames);
    // The event shares the frame's buffer through its own slice: no byte is copied, and the
    // bytes stay valid until the scheduler has destroyed the event.
    std::function<void(unsigned long long)> transmit;
    {
        const Kt::CSlice<unsigned char> slice = frame.GetData();
        transmit = std::bind(&PcapNetOutputIf::TransmitData, this, slice, std::placeholders::_1);
    }
    Lyr::PreciseScheduler& scheduler = Lyr::PreciseScheduler::GetInstance();
    Lyr::PreciseScheduler::Event event(std::move(transmit));
    scheduler.ScheduleEvent(std::move(event), frame.GetTimestamp());
    pending.HandOver();
}

void PcapNetOutputIf::TransmitData(const Kt::CSlice<unsigned char>& slice, unsigned long long schedulerValue)
{
    // The frame leaves the count last, on every path; afterwards this object is not touched.
    PendingFrame pending(pendingFrames);
    if (schedulerValue > timeout) {
        timeoutDelegate.Fire();
        return;
    }
    if (!pcapHandle)
        return;
    if (pcap_inject(pcapHandle, slice.data, slice.size) < 1)
        Kt::MyPrintf("Failed to transmit data.");
}
