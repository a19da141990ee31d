#include "PcapNetInputIf.h"

#include "PcapCommon.h"

#include <lyr/EthFrame.h>

#include <kt/MyPrintf.h>

#include <cstring>
#include <exception>
#include <thread>
#include <utility>

namespace {

// Fixed capture settings: promiscuous, a 1 ms read timeout so that pcap_loop looks at a
// breakloop at least that often, and a 2 MiB kernel ring.
constexpr int ReadTimeoutMs = 1;
constexpr int KernelBufferBytes = 2097152;
constexpr unsigned int RetryPauseMs = 1000;
constexpr unsigned int BufferCount = 1000;

// The instance whose ReadInterface runs on the calling thread, if any: tells a subscriber's call
// from a framework thread's.
thread_local const PcapNetInputIf* captureInstance = nullptr;
// The instance that a subscriber deleted on this capture thread. Only its address is kept, to be
// compared: the thread finishes its last pass without touching the object again.
thread_local const void* deletedInstance = nullptr;
// How long a capture thread whose instance is gone waits for the Cancel that ends it.
constexpr unsigned int DeletedWaitMs = 3600000;

} // namespace

std::string GenerateFilterExpression(const Kt::CIpAddress& address, unsigned int port)
{
    std::string expression;
    if (address != Kt::CIpAddress::MinIpAddress)
        expression = "dst host " + address.GetIp(false);
    if (port != 0) {
        if (!expression.empty())
            expression += " && ";
        expression += "dst port " + std::to_string(port);
    }
    return expression;
}

PcapNetInputIf::PcapNetInputIf() : bufferPool(new Lyr::BufferPool(BufferCount, MaxFrameSize))
{
}

PcapNetInputIf::~PcapNetInputIf()
{
    // A subscriber that deletes its input runs on the capture thread, which cannot wait for its
    // own end; the thread and the handle are left to end behind the object.
    if (IsCaptureThread())
        LeaveCaptureThread();
    else
        PcapNetInputIf::Stop();
    // Buffers that subscribers still hold outlive the pool; the pool frees them at their end.
    delete bufferPool;
}

bool PcapNetInputIf::Configure(const std::string& deviceName, const Kt::CIpAddress& address, unsigned int port)
{
    std::unique_lock<std::mutex> lock(stateMutex);
    captureFilter = GenerateFilterExpression(address, port);

    // A trial compile on a handle without a device, so that a refused filter shows now and not
    // only at the next open on the capture thread.
    pcap_t* trial = pcap_open_dead(DLT_EN10MB, MaxFrameSize);
    if (!trial) {
        Kt::MyPrintf("Couldn't install filter %s: %s\n", captureFilter.c_str(), "no handle to compile it on");
        return false;
    }
    bpf_program program;
    if (pcap_compile(trial, &program, captureFilter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == -1) {
        Kt::MyPrintf("Couldn't install filter %s: %s\n", captureFilter.c_str(), pcap_geterr(trial));
        pcap_close(trial);
        return false;
    }
    pcap_freecode(&program);
    pcap_close(trial);

    pcap_if_t* devices = nullptr;
    char errbuf[PCAP_ERRBUF_SIZE];
    errbuf[0] = '\0';
    if (pcap_findalldevs(&devices, errbuf) == -1) {
        Kt::MyPrintf("Error attempting to configure interface(%s). No interfaces could be found.\n", deviceName.c_str());
        return false;
    }
    bool bFound = false;
    for (const pcap_if_t* device = devices; device && !bFound; device = device->next)
        bFound = deviceName == device->name;
    pcap_freealldevs(devices);
    if (!bFound) {
        Kt::MyPrintf("Error attempting to configure interface(%s). The selected interface could not be found.\n",
                     deviceName.c_str());
        return false;
    }
    interfaceName = deviceName;
    return true;
}

void PcapNetInputIf::Start()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    // For a subscriber the instance is started; waiting below would wait for its own thread.
    if (IsCaptureThread())
        return;
    // A Stop in progress has let the lock go while it waits for the thread; Start comes after it.
    stopFinished.wait(lock, [this] { return !bStopping; });
    if (captureThread)
        return;
    const Kt::CFunctor<bool()> body =
        Kt::MakeMemberFunctor0<PcapNetInputIf, bool, &PcapNetInputIf::ReadInterface>(this);
    captureThread = new Kt::CThread(body, "LYR-PcapInIf", Kt::CThread::GetPriority());
    captureThread->Run();
}

// Stop and the capture thread must never wait for each other: the thread needs stateMutex for
// the ResetCounters after every open (and so does a subscriber that reads the counters). So Stop
// marks the instance as stopping and breaks the loop under the lock, then lets the lock go while
// it cancels and joins the thread. The thread decides under the same lock, after the mark is
// set or before, whether it enters pcap_loop: if before, the handle it is about to loop on is
// the one Stop breaks (libpcap keeps a breakloop for a loop that has not begun yet); if after,
// it does not enter at all. bStopping keeps other Start and Stop calls off until the end.
void PcapNetInputIf::Stop()
{
    if (IsCaptureThread()) {
        Kt::MyPrintf("Stop called from the capture thread is refused: %s\n", "call it from another thread");
        return;
    }
    std::unique_lock<std::mutex> lock(stateMutex);
    stopFinished.wait(lock, [this] { return !bStopping; });
    if (captureThread) {
        Kt::CThread* thread = captureThread;
        bStopping = true;
        if (pcapHandle)
            pcap_breakloop(pcapHandle);
        lock.unlock();
        thread->Cancel();
        delete thread;
        lock.lock();
        captureThread = nullptr;
        bStopping = false;
        stopFinished.notify_all();
    }
    CloseInterface();
}

bool PcapNetInputIf::ReadInterface()
{
    captureInstance = this;
    if (!OpenInterface()) {
        Kt::CThread::Sleep(RetryPauseMs);
        return true;
    }
    ResetCounters();
    if (EnterCapture())
        pcap_loop(pcapHandle, -1, &PcapNetInputIf::PcapLoopHandler, reinterpret_cast<unsigned char*>(this));
    // A subscriber deleted this instance during the loop: its memory is gone, so no other pass
    // may start. The thread waits here for the Cancel that LeaveCaptureThread has ordered.
    if (deletedInstance == this)
        Kt::CThread::Sleep(DeletedWaitMs);
    return true;
}

// The destructor on the capture thread, inside a subscriber. The subscribers whose turn has not
// come still get the frame in hand (the delegate copied them all before the first call), but no
// later packet reaches anyone: the loop is broken and the handler drops what libpcap still hands
// over. The handle must outlive the pcap_loop on this stack, and the thread cannot join itself,
// so a helper thread cancels and deletes the capture thread, then closes the handle.
void PcapNetInputIf::LeaveCaptureThread()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    deletedInstance = this;
    if (pcapHandle)
        pcap_breakloop(pcapHandle);
    Kt::CThread* thread = std::exchange(captureThread, nullptr);
    pcap_t* handle = std::exchange(pcapHandle, nullptr);
    std::thread([thread, handle] {
        thread->Cancel();
        delete thread;
        if (handle)
            pcap_close(handle);
    }).detach();
}

bool PcapNetInputIf::EnterCapture()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    return !bStopping;
}

// The whole open runs under stateMutex: it replaces pcapHandle, which Stop, GetCounters and
// ResetCounters use, and reads the strings that Configure writes. It takes milliseconds, and the
// lock is let go before pcap_loop.
bool PcapNetInputIf::OpenInterface()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    if (bStopping)
        return false; // no open that Stop would only have to close again
    CloseInterface();
    char errbuf[PCAP_ERRBUF_SIZE];
    errbuf[0] = '\0';
    pcapHandle = pcap_create(interfaceName.c_str(), errbuf);
    if (!pcapHandle) {
        Kt::MyPrintf("Failed to open interface(%s) for reading: %s\n", interfaceName.c_str(), errbuf);
        return false;
    }
    if (pcap_set_snaplen(pcapHandle, MaxFrameSize) != 0)
        return OpenFailed("Failed to set snaplen: %s\n");
    if (pcap_set_promisc(pcapHandle, 1) != 0)
        return OpenFailed("Failed to set promisc: %s\n");
    if (pcap_set_timeout(pcapHandle, ReadTimeoutMs) != 0)
        return OpenFailed("Failed to set timeout: %s\n");
    if (pcap_set_buffer_size(pcapHandle, KernelBufferBytes) != 0)
        return OpenFailed("Failed to set buffer size: %s\n");
    // A warning (a positive result) counts as a failure too.
    if (pcap_activate(pcapHandle) != 0)
        return OpenFailed("Failed to activate: %s\n");
    if (captureFilter.empty())
        return true;
    bpf_program program;
    if (pcap_compile(pcapHandle, &program, captureFilter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == -1) {
        Kt::MyPrintf("Couldn't install filter %s: %s\n", captureFilter.c_str(), pcap_geterr(pcapHandle));
        return false;
    }
    const bool bInstalled = pcap_setfilter(pcapHandle, &program) != -1;
    pcap_freecode(&program); // the handle keeps its own copy
    if (!bInstalled)
        Kt::MyPrintf("Couldn't install filter %s: %s\n", captureFilter.c_str(), pcap_geterr(pcapHandle));
    return bInstalled;
}

// A failed step leaves its handle in place for the next attempt's CloseInterface (or Stop's).
bool PcapNetInputIf::OpenFailed(const char* format)
{
    Kt::MyPrintf(format, pcap_geterr(pcapHandle));
    return false;
}

void PcapNetInputIf::CloseInterface()
{
    if (!pcapHandle)
        return;
    pcap_close(pcapHandle);
    pcapHandle = nullptr;
}

bool PcapNetInputIf::IsCaptureThread() const
{
    return captureInstance == this;
}

void PcapNetInputIf::PcapLoopHandler(unsigned char* user, const pcap_pkthdr* header, const unsigned char* packet)
{
    // No exception may unwind through libpcap's C frames. A subscriber that throws loses the
    // rest of this one delivery; the capture goes on with the next packet.
    if (user == deletedInstance)
        return; // deleted by a subscriber; the loop is broken and ends after this batch
    try {
        reinterpret_cast<PcapNetInputIf*>(user)->HandlePacket(header, packet);
    } catch (const std::exception& error) {
        Kt::MyPrintf("A subscriber failed on a captured frame: %s\n", error.what());
    } catch (...) {
        Kt::MyPrintf("A subscriber failed on a captured frame: %s\n", "unknown exception");
    }
}

// One copy of the bytes into a pool buffer, no lock and no allocation: with every buffer out
// (subscribers keep frames) the pool hands out a one-off heap buffer of the same size instead.
void PcapNetInputIf::HandlePacket(const pcap_pkthdr* header, const unsigned char* packet)
{
    if (!packet)
        return;
    const unsigned int caplen = header->caplen;
    if (!IsCompleteFrame(caplen, header->len)) {
        Kt::MyPrintf("%s", InvalidPacketSizeMessage);
        return;
    }
    Lyr::EthFrame frame(bufferPool->GetBuffer(), 0);
    Kt::CSlice<unsigned char> bytes = frame.GetData();
    bytes = bytes.Prefix(caplen);
    if (caplen != 0)
        std::memcpy(bytes.data, packet, caplen);
    frame.SetData(bytes);
    frame.SetTimestamp(TimeValToMicroseconds(header->ts));
    frameCount += 1;
    byteCount += caplen;
    frameDelegate.Fire(frame);
}

NetInputCounters PcapNetInputIf::GetCounters()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    NetInputCounters counters{0, 0, 0};
    if (!pcapHandle)
        return counters;
    pcap_stat stats;
    if (pcap_stats(pcapHandle, &stats) != 0) {
        Kt::MyPrintf("Failed to get stats: %s\n", pcap_geterr(pcapHandle));
        return counters;
    }
    counters.frameCount = frameCount.load();
    counters.byteCount = byteCount.load();
    // Wraps when libpcap reports fewer drops than the baseline (a new handle whose first
    // pcap_stats failed): not clamped, so the fault shows.
    counters.dropCount = static_cast<unsigned long long>(stats.ps_drop) - dropBaseline.load();
    return counters;
}

void PcapNetInputIf::ResetCounters()
{
    std::unique_lock<std::mutex> lock(stateMutex);
    frameCount = 0;
    byteCount = 0;
    if (!pcapHandle)
        return;
    pcap_stat stats;
    if (pcap_stats(pcapHandle, &stats) != 0) {
        Kt::MyPrintf("Failed to get stats: %s\n", pcap_geterr(pcapHandle));
        return;
    }
    dropBaseline = stats.ps_drop;
}
