// Compiled as the plug-in is compiled (LYR_CONTRACT_ONLY), once per probe: probe 0 uses what the
// plug-in's contract with the framework and toolkit lists and must build; every other probe
// reaches for one thing that the stand-ins offer beyond it, and must not.
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/IpPacket.h>
#include <lyr/NetInputIf.h>
#include <lyr/NetOutputIf.h>
#include <lyr/PreciseScheduler.h>
#if PROBE == 20
#include <lyr/PluginLookup.h>
#endif

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
    Kt::CThread thread(Kt::MakeMemberFunctor0<Probe, bool, &Probe::Body>(&probe), "probe", Kt::CThread::GetPriority());
    thread.Run();
    thread.Cancel();
    Lyr::PreciseScheduler::GetInstance().ScheduleEvent([](unsigned long long&) {}, 0);
#if PROBE == 1
    frame.GetCapacity();
#elif PROBE == 2
    Lyr::EthFrame empty;
#elif PROBE == 3
    frame.GetDstAddress();
#elif PROBE == 4
    frame.GetLengthType();
#elif PROBE == 5
    frame.SetVlanTag(1);
#elif PROBE == 6
    packet.GetSrcAddress();
#elif PROBE == 7
    pool.GetFreeCount();
#elif PROBE == 8
    pool.GetOverflowCount();
#elif PROBE == 9
    output.GetConfigState();
#elif PROBE == 10
    output.SubscribeTimeout(Lyr::NetOutputIf::TimeoutFunctor());
#elif PROBE == 11
    Lyr::PreciseScheduler::GetInstance().SetPresentTimestamp(0);
#elif PROBE == 12
    Lyr::PreciseScheduler::GetInstance().GetLatenessStatistics();
#elif PROBE == 13
    Kt::SetLogSink(nullptr);
#elif PROBE == 14
    Kt::CSlice<unsigned char> made(slice.owner, slice.data, 1);
#elif PROBE == 15
    Kt::CIpAddress parsed(0x7f000001u);
#elif PROBE == 16
    Kt::CMacAddress made(1);
#elif PROBE == 17
    (void)address.ToUint32();
#elif PROBE == 18
    Kt::MakeFunctor<void()>([] {});
#elif PROBE == 19
    auto body = Kt::MakeMemberFunctor0<Probe, bool, &Probe::Body>(&probe);
    body = Kt::MakeMemberFunctor0<Probe, bool, &Probe::Body>(&probe);
#elif PROBE == 21
    (void)(destination == address);
#endif
}
