// Compiled as the plug-in is compiled (LYR_CONTRACT_ONLY): without PROBE it uses what the
// plug-in's contract with the framework and toolkit lists, and must build; check_contract.cmake
// compiles it again once for each member beyond the contract, as PROBE, which must not build.
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/IpPacket.h>
#include <lyr/NetInputIf.h>
#include <lyr/NetOutputIf.h>
#include <lyr/PreciseScheduler.h>

#include <kt/CIpAddress.h>
#include <kt/CMacAddress.h>
#include <kt/CThread.h>
#include <kt/MyPrintf.h>

struct Probe {
    bool Body() { return true; }
};

void Use(Lyr::BufferPool& pool, Lyr::NetOutputIf& output, const Kt::CIpAddress& address)
{
    Kt::CSlice<unsigned char> slice = pool.GetBuffer();
    Lyr::EthFrame frame(slice, 0);
    slice = slice.Prefix(14);
    frame.SetData(slice);
    frame.SetDstAddress(Kt::CMacAddress());
    frame.SetLengthType(0x0800);
    frame.SetTimestamp(frame.GetTimestamp() + frame.GetHeaderSize());
    Lyr::IpPacket packet(frame.GetPayload());
    Kt::CIpAddress destination = packet.GetDstAddress();
    if (destination.IsMulticast() && destination != Kt::CIpAddress::MinIpAddress)
        frame.SetDstAddress(Lyr::GetMulticastMacAddress(destination));
    Kt::MyPrintf("%s\n", address.GetIp(false).c_str());
    Probe probe;
    auto body = Kt::MakeMemberFunctor0<Probe, bool, &Probe::Body>(&probe);
    Kt::CThread thread(body, "probe", Kt::CThread::GetPriority());
    thread.Run();
    thread.Cancel();
    Lyr::PreciseScheduler::GetInstance().ScheduleEvent([](unsigned long long&) {}, 0);
    (void)output;
#ifdef PROBE
    PROBE;
#endif
}
