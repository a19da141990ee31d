// The stand-ins for the toolkit and the framework, as far as the plug-in and the host rely on them.
#include <kt/CDelegate.h>
#include <kt/CIpAddress.h>
#include <kt/CSlice.h>
#include <kt/CThread.h>
#include <lyr/BufferPool.h>
#include <lyr/EthFrame.h>
#include <lyr/IpPacket.h>
#include <lyr/NetInput.h>
#include <lyr/PluginLookup.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

// A count block whose destruction the test can see.
struct TestOwner {
    Kt::CPtrRef ref{1, &Destroy};
    int destroyed = 0;
    static void Destroy(Kt::CPtrRef* block) { ++reinterpret_cast<TestOwner*>(block)->destroyed; }
};

using Delegate = Kt::CDelegate<void(int)>;

struct Counter {
    std::atomic<int> passes{0};
    char name[16] = {};
    bool Pass()
    {
        pthread_getname_np(pthread_self(), name, sizeof name);
        ++passes;
        Kt::CThread::Sleep(60000); // only a Cancel can end this in time
        return true;
    }
};

// A kind of interface of the test's own, so that its factory starts empty.
struct Widget {
    virtual ~Widget() = default;
    virtual int Id() const = 0;
};
template <int id> struct NumberedWidget : Widget {
    int Id() const override { return id; }
};

std::vector<unsigned char> BytesOf(const Lyr::EthFrame& frame)
{
    const Kt::CSlice<unsigned char> data = frame.GetData();
    return std::vector<unsigned char>(data.data, data.data + data.size);
}

// An input whose frame delegate the test fires itself.
struct Input : Lyr::NetInput {
    using NetInput::frameDelegate;
    void Start() override {}
    void Stop() override {}
};

} // namespace

TEST(Slice, CountsFollowCopyAssignmentAndPrefix)
{
    unsigned char bytes[16] = {};
    TestOwner a, b;
    {
        auto first = Kt::CSlice<unsigned char>::Adopt(&a.ref, bytes, 16);
        Kt::CSlice<unsigned char> copy(first);
        EXPECT_EQ(a.ref.refCount, 2u);

        copy = copy; // self-assignment and same-owner assignment leave the count alone
        copy = first.Prefix(4);
        EXPECT_EQ(a.ref.refCount, 2u);
        const Kt::CSlice<unsigned char> empty = first.Prefix(0); // still a reference
        EXPECT_EQ(a.ref.refCount, 3u);

        // The target held the last reference of b: b goes, a gains one.
        auto other = Kt::CSlice<unsigned char>::Adopt(&b.ref, bytes + 8, 8);
        other = first;
        EXPECT_EQ(b.destroyed, 1);
        EXPECT_EQ(a.ref.refCount, 4u);

        Kt::CSlice<unsigned char> unowned(nullptr, bytes, 3), unownedCopy(unowned); // nothing to count
        unownedCopy = unowned.Prefix(2);
    }
    EXPECT_EQ(a.destroyed, 1);
    EXPECT_EQ(a.ref.refCount, 0u);
}

TEST(Delegate, FiresLastEntryFirstEachOnceAndAThrowStopsTheFireReleasingEveryCopy)
{
    Delegate delegate;
    std::string calls;
    bool bThrow = false;
    for (char name : {'A', 'B', 'C'})
        delegate.functors.push_back(Kt::MakeFunctor<void(int)>([&calls, &bThrow, name](int) {
            calls += name;
            if (name == 'B' && bThrow)
                throw std::runtime_error("boom");
        }));
    delegate.Fire(7);
    EXPECT_EQ(calls, "CBA");
    bThrow = true;
    EXPECT_THROW(delegate.Fire(0), std::runtime_error);
    EXPECT_EQ(calls, "CBA" "CB"); // behind the thrower ran, before it not
    for (const auto& functor : delegate.functors)
        EXPECT_EQ(functor.holder->refCount, 1u);
}

TEST(Delegate, FunctorRemovingItselfKeepsItsHolderUntilTheCallEnds)
{
    Delegate delegate;
    auto alive = std::make_shared<int>(0);
    std::weak_ptr<int> watch = alive;
    bool bAliveDuringCall = false;
    delegate.functors.push_back(Kt::MakeFunctor<void(int)>([&, alive](int) {
        delegate.functors.clear(); // the list held the only other reference
        bAliveDuringCall = !watch.expired();
    }));
    alive.reset();
    delegate.Fire(0);
    EXPECT_TRUE(bAliveDuringCall);
    EXPECT_TRUE(watch.expired()); // destroyed right after the call, on this thread
}

TEST(Thread, CancelEndsASleepingBodyPromptlyAndTheThreadIsNamed)
{
    // A name longer than the kernel keeps (15 characters) is cut, not refused.
    for (const std::string name : {"LYR-PcapInIf", "LYR-a-name-longer-than-the-kernel-keeps"}) {
        Counter counter;
        auto body = Kt::MakeMemberFunctor0<Counter, bool, &Counter::Pass>(&counter);
        EXPECT_EQ(body.holder, nullptr);
        Kt::CThread thread(body, name, Kt::CThread::GetPriority());
        ASSERT_TRUE(thread.Run());
        while (counter.passes == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        const auto start = std::chrono::steady_clock::now();
        thread.Cancel();
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
        EXPECT_EQ(counter.passes, 1);
        EXPECT_EQ(counter.name, name.substr(0, 15));
    }
}

TEST(Addresses, ParseFormatAndClassify)
{
    Kt::CIpAddress ip;
    for (const char* bad : {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "1.2.3.4 ", "a.b.c.d"})
        EXPECT_FALSE(Kt::CIpAddress::Parse(bad, ip)) << bad;
    ASSERT_TRUE(Kt::CIpAddress::Parse("239.255.255.255", ip));
    EXPECT_TRUE(ip.IsMulticast());
    EXPECT_EQ(ip.GetIp(false), "239.255.255.255");
    for (const char* outside : {"223.255.255.255", "240.0.0.1"}) { // the group range's neighbours
        ASSERT_TRUE(Kt::CIpAddress::Parse(outside, ip)) << outside;
        EXPECT_FALSE(ip.IsMulticast()) << outside;
    }
}

// Entries join at the front and a fire calls the back first, so the order shows which copy of
// `a` an Unsubscribe took: "ab" after the first means the first entry (the later copy) went.
TEST(Subscribers, UnsubscribeRemovesOnlyTheFirstMatchingEntry)
{
    std::string calls;
    const auto named = [&calls](char name) {
        return Kt::MakeFunctor<void(const Lyr::EthFrame&)>([&calls, name](const Lyr::EthFrame&) { calls += name; });
    };
    const auto a = named('a');
    Input input;
    input.Subscribe(a), input.Subscribe(named('b')), input.Subscribe(a);
    input.Unsubscribe(named('a')); // the same wrapper on another target matches nothing
    for (int round = 0; round < 4; ++round, calls += '|') {
        input.frameDelegate.Fire(Lyr::EthFrame());
        input.Unsubscribe(a); // the last one finds no entry left
    }
    EXPECT_EQ(calls, "aba|ab|b|b|");
}

TEST(PluginFactory, RegistrationReplacesSilentlyAndNamesAreExact)
{
    auto& registrars = Lyr::PluginFactory<Widget>::Instance().registrars;
    static Lyr::PluginRegistrar<Widget, NumberedWidget<1>> one("pcap");
    EXPECT_EQ(registrars.size(), 1u);
    auto first = Lyr::CreatePlugin<Widget>("pcap"), second = Lyr::CreatePlugin<Widget>("pcap");
    ASSERT_TRUE(first && second);
    EXPECT_NE(first.get(), second.get());
    first.reset();
    EXPECT_EQ(second->Id(), 1);

    static Lyr::PluginRegistrar<Widget, NumberedWidget<2>> two("pcap"); // the last registration wins
    EXPECT_EQ(registrars.size(), 1u);
    EXPECT_EQ(Lyr::CreatePlugin<Widget>("pcap")->Id(), 2);
    for (const char* other : {"PCAP", "pcap ", "pca"})
        EXPECT_EQ(Lyr::FindRegistrar<Widget>(other), nullptr) << other;
}

TEST(EthFrame, AHeaderSetBeforeTheDataLandsInFrontOfThePayloadAndCapturedBytesReadAsTheyCame)
{
    Lyr::BufferPool pool(1, 64);
    Lyr::EthFrame frame(pool.GetBuffer(), 0);
    Kt::CSlice<unsigned char> none = frame.GetData().Prefix(0);
    frame.SetData(none); // no room for a header: what is set waits for the data to widen
    frame.SetDstAddress(0x01005e000001ULL);
    frame.SetSrcAddress(0x001122334455ULL);
    frame.SetVlanPresent(false);
    frame.SetLengthType(0x0800);
    Kt::CSlice<unsigned char> whole = frame.GetData().Prefix(frame.GetHeaderSize() + 4);
    frame.SetData(whole);
    std::memcpy(frame.GetPayload().data, "\x45\x00\x00\x14", 4);

    EXPECT_EQ(BytesOf(frame), (std::vector<unsigned char>{0x01, 0x00, 0x5e, 0x00, 0x00, 0x01, 0x00, 0x11, 0x22, 0x33, 0x44,
                                                          0x55, 0x08, 0x00, 0x45, 0x00, 0x00, 0x14}));
    EXPECT_EQ(frame.GetCapacity(), 64u); // narrowing the same buffer keeps its room

    frame.SetVlanPresent(true);
    frame.SetVlanTag(0x0005);
    EXPECT_EQ(frame.GetHeaderSize(), 18u);
    const auto tagged = BytesOf(frame); // the tag after the addresses, then the type
    EXPECT_EQ(std::vector<unsigned char>(tagged.begin() + 12, tagged.begin() + 18),
              (std::vector<unsigned char>{0x81, 0x00, 0x00, 0x05, 0x08, 0x00}));

    unsigned char bytes[] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 1, 2, 3, 4, 5, 0x81, 0x00, 0x20, 0x07, 0x08, 0x06, 9};
    Lyr::EthFrame captured(Kt::CSlice<unsigned char>(nullptr, bytes, sizeof bytes), 42);
    EXPECT_EQ(std::make_tuple(captured.GetDstAddress(), captured.GetSrcAddress(), captured.GetVlanPresent(),
                              captured.GetVlanTag(), captured.GetLengthType(), captured.GetPayload().size),
              std::make_tuple(0xffffffffffffULL, 0x000102030405ULL, true, 0x2007, 0x0806, 1u));
}

TEST(IpPacket, ReadsOnlyWithinItsSlice)
{
    // The bytes behind the slice would make a multicast destination if they were read.
    unsigned char bytes[20] = {0x45};
    bytes[16] = 224;
    for (unsigned int size = 0; size < 20; ++size) {
        Lyr::IpPacket packet(Kt::CSlice<unsigned char>(nullptr, bytes, size));
        EXPECT_TRUE(packet.GetDstAddress() == Kt::CIpAddress::MinIpAddress) << size;
    }
    EXPECT_TRUE(Lyr::IpPacket(Kt::CSlice<unsigned char>(nullptr, bytes, 20)).GetDstAddress().IsMulticast());
    EXPECT_FALSE(Lyr::IpPacket(Kt::CSlice<unsigned char>(nullptr, nullptr, 20)).IsValid());

    const Kt::CIpAddress group(0xEF810203); // 239.129.2.3: the top bit of the low 24 is dropped
    EXPECT_EQ(static_cast<unsigned long long>(Lyr::GetMulticastMacAddress(group)), 0x01005e010203ULL);
}

TEST(BufferPool, BuffersReturnWithTheirLastSliceFromAnyThreadAndMayOutliveThePool)
{
    Lyr::BufferPool pool(2, 100);
    {
        Kt::CSlice<unsigned char> a = pool.GetBuffer(), b = pool.GetBuffer();
        EXPECT_EQ(pool.GetFreeCount(), 0u);
        EXPECT_NE(a.data, b.data);
        Kt::CSlice<unsigned char> extra = pool.GetBuffer(); // all out: still a usable buffer
        ASSERT_NE(extra.data, nullptr);
        EXPECT_EQ(extra.size, 100u);
        std::memset(extra.data, 0xab, extra.size);
        EXPECT_EQ(pool.GetOverflowCount(), 1u);
        Kt::CSlice<unsigned char> keep = a.Prefix(10);
        a = Kt::CSlice<unsigned char>();
        EXPECT_EQ(pool.GetFreeCount(), 0u); // `keep` still holds it
        std::thread([keep]() mutable { keep = Kt::CSlice<unsigned char>(); }).join();
    }
    EXPECT_EQ(pool.GetFreeCount(), 2u);

    // Many threads taking and returning at once never hand one buffer out twice.
    std::vector<std::thread> threads;
    std::atomic<int> clashes{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&pool, &clashes, t] {
            for (int i = 0; i < 20000; ++i) {
                Kt::CSlice<unsigned char> s = pool.GetBuffer();
                s.data[0] = static_cast<unsigned char>(t);
                std::this_thread::yield();
                clashes += s.data[0] != t;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(clashes, 0);
    EXPECT_EQ(pool.GetFreeCount(), 2u);

    Kt::CSlice<unsigned char> survivor = Lyr::BufferPool(1, 16).GetBuffer(); // the pool ends at once
    std::memset(survivor.data, 1, survivor.size); // AddressSanitizer would see freed memory
    EXPECT_EQ(survivor.size, 16u);

    // The pool's end meets the last returns on other threads; the sanitizers watch who frees.
    for (int round = 0; round < 200; ++round) {
        auto ending = std::make_unique<Lyr::BufferPool>(3, 16);
        std::atomic<bool> go{false};
        std::vector<std::thread> returners;
        for (int i = 0; i < 3; ++i)
            returners.emplace_back([&go, slice = ending->GetBuffer()]() mutable {
                while (!go.load()) {
                }
                slice = Kt::CSlice<unsigned char>();
            });
        go = true;
        ending.reset();
        for (auto& returner : returners)
            returner.join();
    }
}
