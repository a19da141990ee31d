#include <kt/CDelegate.h>
#include <kt/CIpAddress.h>
#include <kt/CSlice.h>
#include <kt/CThread.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

// A count block whose destruction the test can see.
struct TestOwner {
    Kt::CPtrRef ref{1, &Destroy};
    int destroyed = 0;
    static void Destroy(Kt::CPtrRef* block) { ++reinterpret_cast<TestOwner*>(block)->destroyed; }
};

using Delegate = Kt::CDelegate<void(int)>;

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

namespace {

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

} // namespace

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
