// An item's thread can be cancelled while its entry function runs, and at no other moment.

#include "unit/activators/item_threads.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

using namespace std::chrono_literals;

namespace {

class CancellingAnItem : public ItemThreads {
public:
    /// A bundle of the library that waits in its constructor.
    void MakeGated()
    {
        ::setenv("GATED_LIBRARY", gate.Path().c_str(), 1);
        Make(collection.Bundle("tuner").ThreadMode().Library("gated.so", "Enter", GATED_LIBRARY));
    }

    bool IsReached(const std::string& name) const
    {
        return Eventually(PATIENCE, [&] { return Exists(gate / name); });
    }

    TemporaryDirectory gate;
};

struct CancelState {
    int state = -1;
    int type = -1;
};

CancelState OwnCancelState()
{
    CancelState own;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &own.state);
    ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &own.type);
    ::pthread_setcanceltype(own.type, nullptr);
    ::pthread_setcancelstate(own.state, nullptr);
    return own;
}

} // namespace

TEST_F(CancellingAnItem, WaitsUntilItsLibraryIsLoadedAndPreventsTheCall)
{
    MakeGated();
    activator->Start();
    ASSERT_TRUE(IsReached("reached"));
    activator->Stop(); // must not wait for the dynamic loader, whose lock is held, to load the unwinder
    EXPECT_EQ(cancellations.Count(), 1);
    WriteFile(gate / "open", "");
    EXPECT_TRUE(ItemThreadsEnd());
    EXPECT_FALSE(Exists(gate / "entered"));
    EXPECT_TRUE(log.Has("bundle[tuner] dyn lib[gated.so] activate start..."));
    EXPECT_FALSE(log.HasPart("activate done."));
    EXPECT_NE(::dlopen((path + "/bin/gated.so").c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
    MakeWith("Succeed");
    activator->Start();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."))
        << "the dynamic loader's lock is never released";
}

TEST_F(CancellingAnItem, IsPossibleInItsEntryFunctionAndNotInTheConstructor)
{
    MakeWith("ReturnAsynchronous");
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    const ItemLibrary library = Library();
    EXPECT_EQ(library.StateInConstructor(), PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(library.StateInEntry(), PTHREAD_CANCEL_ENABLE);
}

TEST_F(CancellingAnItem, IsNotPossibleInTheLogInAnyStateOfItsFunction)
{
    MakeWith("ReturnAsynchronous");
    const std::thread::id test = std::this_thread::get_id();
    std::atomic<int> records{0};
    const BeforeEach record(Call::WRITE, [&](int) {
        if (std::this_thread::get_id() != test) {
            const CancelState own = OwnCancelState();
            EXPECT_EQ(own.state, PTHREAD_CANCEL_DISABLE);
            EXPECT_EQ(own.type, PTHREAD_CANCEL_DEFERRED);
            ++records;
        }
    });
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_TRUE(ItemThreadsEnd());
    EXPECT_EQ(records, 2);
}

TEST_F(CancellingAnItem, HasNoEffectAfterItsFunctionHasReturned)
{
    MakeWith("ReturnCancelledAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    activator->Stop();
    library.OpenGate();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(CancellingAnItem, FindsItsThread)
{
    MakeWith("WaitAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    const int threads = OwnProcess::Threads();
    const BeforeEach cancellation(Call::CANCEL_THREAD, [&](int) {
        library.OpenGate();
        EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
        EXPECT_FALSE(Eventually(300ms, [threads] { return OwnProcess::Threads() < threads; }))
            << "the handle may belong to another thread";
    });
    activator->Stop();
    EXPECT_EQ(cancellations.Count(), 1);
    EXPECT_TRUE(ItemThreadsEnd());
}

// A cancellation that cannot load the unwinder ends the process. A loaded unwinder stays, so the test needs a new
// process.
TEST_F(CancellingAnItem, IsMadePossibleBeforeItsThreadIsStarted)
{
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    MakeWith("Succeed");
    const auto startWithoutUnwinder = [this] {
        const Fault fault(Call::DLOPEN, ENOMEM);
        try {
            activator->Start();
        } catch (const Poco::InvalidArgumentException& e) {
            std::cerr << e.message() << std::endl;
            ::_exit(activator->ThreadIds().empty() && log.Messages().empty() ? 0 : 1);
        }
        ::_exit(2);
    };
    EXPECT_EXIT(startWithoutUnwinder(), ::testing::ExitedWithCode(0), "item.tunerd.so. thread fail: ");
}
