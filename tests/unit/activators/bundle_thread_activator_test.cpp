#include "unit/activators/item_threads.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

using SystemServer::Bundle;

namespace {

class AThreadActivator : public ItemThreads {};

} // namespace

TEST_F(AThreadActivator, StartsNothingForABundleWithoutItems)
{
    Make(collection.Bundle("tuner").ThreadMode());
    activator->Start();
    EXPECT_TRUE(activator->ThreadIds().empty());
    activator->Stop();
    EXPECT_TRUE(log.Messages().empty());
}

TEST_F(AThreadActivator, CallsTheEntryFunctionOnASeparateThread)
{
    MakeWith("Succeed");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_EQ(library.Entered(), 1);
    EXPECT_EQ(log.Messages(), (std::vector<std::string>{"bundle[tuner] dyn lib[tunerd.so] activate start...",
                                                        "bundle[tuner] dyn lib[tunerd.so] activate done."}));
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO");
        EXPECT_NE(record.thread, record.pid) << "logged on the thread of the caller";
    }
}

TEST_F(AThreadActivator, NamesTheThreadAfterBundleAndItem)
{
    MakeWith("Succeed");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_EQ(library.ThreadName(), std::string("tuner.tunerd.so").substr(0, 15));
}

TEST_F(AThreadActivator, CutsALongThreadName)
{
    Make(collection.Bundle("entertainment").ThreadMode().Library("tunerd.so", "Succeed", THREAD_ITEM));
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[entertainment] dyn lib[tunerd.so] activate done."));
    EXPECT_EQ(library.ThreadName(), "entertainment.t");
}

TEST_F(AThreadActivator, DoesNotWaitForTheEntryFunction)
{
    MakeWith("Serve");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    EXPECT_FALSE(log.HasPart("activate done."));
}

TEST_F(AThreadActivator, StartsEachItemOnceInTheirOrder)
{
    Make(collection.Bundle("tuner")
             .ThreadMode()
             .Library("one.so", "WaitAtGate", THREAD_ITEM)
             .Library("two.so", "WaitAtGate", THREAD_ITEM));
    const ItemLibrary one = Library("one.so");
    const ItemLibrary two = Library("two.so");
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return one.Entered() == 1 && two.Entered() == 1; }));
    ASSERT_EQ(activator->ThreadIds().size(), 2U);
    EXPECT_NE(activator->ThreadIds()[0], activator->ThreadIds()[1]);
}

TEST_F(AThreadActivator, LogsAnEntryFunctionThatFails)
{
    MakeWith("Fail");
    activator->Start();
    ASSERT_TRUE(IsLogged("entry func[Fail] return fail."));
    EXPECT_TRUE(log.HasError("entry func[Fail] return fail."));
    EXPECT_FALSE(log.HasPart("activate done."));
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(AThreadActivator, LogsALibraryThatFailsToOpenWithoutAReason)
{
    Make(collection.Bundle("tuner").ThreadMode().Library("tunerd.so", "Succeed"));
    activator->Start();
    const std::string record = "open dynamic lib[" + path + "/./bin/tunerd.so] error : (null).";
    ASSERT_TRUE(IsLogged(record));
    EXPECT_TRUE(log.HasError(record));
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(AThreadActivator, LogsAFileThatIsNoLibrary)
{
    Make(collection.Bundle("tuner").ThreadMode().Library("tunerd.so", "Succeed"));
    WriteProgram(path + "/bin/tunerd.so", "no library");
    activator->Start();
    EXPECT_TRUE(IsLogged("open dynamic lib[" + path + "/./bin/tunerd.so] error : (null)."));
}

TEST_F(AThreadActivator, LogsAnEntryFunctionThatIsMissingWithoutAReason)
{
    MakeWith("Missing");
    activator->Start();
    ASSERT_TRUE(IsLogged("find entry func[Missing] fail:(null)."));
    EXPECT_TRUE(log.HasError("find entry func[Missing] fail:(null)."));
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(AThreadActivator, NeverClosesALibrary)
{
    for (const char* const entryFunc : {"Succeed", "Fail", "Missing"}) {
        Make(collection.Bundle(entryFunc).ThreadMode().Library("tunerd.so", entryFunc, THREAD_ITEM));
        activator->Start();
        ASSERT_TRUE(Eventually(PATIENCE, [&] { return log.Messages().size() == 2; }));
        activator->Stop();
        ASSERT_TRUE(ItemThreadsEnd());
        activator.reset();
        bundle.reset();
        EXPECT_NE(::dlopen((path + "/bin/tunerd.so").c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr) << entryFunc;
    }
}

TEST_F(AThreadActivator, SurvivesAnEntryFunctionThatThrows)
{
    MakeWith("ThrowException");
    activator->Start();
    const std::string record = "entry func[ThrowException] return fail. exception info: [out of order].";
    ASSERT_TRUE(IsLogged(record));
    EXPECT_TRUE(log.HasError(record));
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(AThreadActivator, SurvivesAnEntryFunctionThatThrowsNoException)
{
    MakeWith("ThrowNumber");
    activator->Start();
    const std::string record = "entry func[ThrowNumber] return fail. exception info: [unknown].";
    ASSERT_TRUE(IsLogged(record));
    EXPECT_TRUE(log.HasError(record));
}

TEST_F(AThreadActivator, RefusesAnItemThatIsNoLibraryAndKeepsTheOnesBeforeItRunning)
{
    Make(collection.Bundle("tuner")
             .ThreadMode()
             .Library("a.so", "WaitAtGate", THREAD_ITEM)
             .Item("bin")
             .Library("c.so", "Succeed", THREAD_ITEM));
    const ItemLibrary first = Library("a.so");
    try {
        activator->Start();
        FAIL() << "an item that is no library was started";
    } catch (const Poco::InvalidArgumentException& e) {
        EXPECT_EQ(e.message(), "item[%s] can not be loaded in thread mode.");
        EXPECT_EQ(e.code(), 0);
    }
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return first.Entered() == 1; }));
    EXPECT_EQ(activator->ThreadIds().size(), 1U);
    first.OpenGate();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[a.so] activate done."));
    EXPECT_FALSE(log.HasPart("dyn lib[c.so]"));
}

TEST_F(AThreadActivator, TakesNoUpperCaseEndingForALibrary)
{
    Make(collection.Bundle("tuner").ThreadMode().Item("tunerd.SO"));
    EXPECT_THROW(activator->Start(), Poco::InvalidArgumentException);
    EXPECT_TRUE(activator->ThreadIds().empty());
}

TEST_F(AThreadActivator, ThrowsWhenAThreadCannotBeCreated)
{
    MakeWith("Succeed");
    const auto attempt = [this] {
        const Fault fault(Call::START_THREAD, EAGAIN);
        activator->Start();
    };
    EXPECT_THROW(attempt(), Poco::InvalidArgumentException);
    EXPECT_TRUE(activator->ThreadIds().empty());
    EXPECT_TRUE(log.Messages().empty());
    activator->Start();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
}

TEST_F(AThreadActivator, CancelsItsThreadsInTheirOrder)
{
    Make(collection.Bundle("tuner")
             .ThreadMode()
             .Library("one.so", "Serve", THREAD_ITEM)
             .Library("two.so", "Serve", THREAD_ITEM));
    const ItemLibrary one = Library("one.so");
    const ItemLibrary two = Library("two.so");
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return one.Entered() == 1 && two.Entered() == 1; }));
    log.Restart();
    activator->Stop();
    const auto ids = activator->ThreadIds();
    EXPECT_EQ(log.Messages(),
              (std::vector<std::string>{"cancel tid[" + std::to_string(ids[0]) + "]...", "cancel done.",
                                        "cancel tid[" + std::to_string(ids[1]) + "]...", "cancel done."}));
    EXPECT_EQ(log.Records().at(0).level, "INFO");
    EXPECT_EQ(cancellations.Count(), 2);
    EXPECT_TRUE(ItemThreadsEnd());
    EXPECT_FALSE(log.HasPart("entry func"));
}

TEST_F(AThreadActivator, RequestsTheEndAndDoesNotWaitForIt)
{
    MakeWith("WaitAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    activator->Stop();
    EXPECT_EQ(cancellations.Count(), 1);
    library.OpenGate();
    EXPECT_TRUE(ItemThreadsEnd());
}

TEST_F(AThreadActivator, AsksTwiceWhenItIsStoppedTwice)
{
    MakeWith("WaitAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    activator->Stop();
    activator->Stop();
    const std::string record = "cancel tid[" + std::to_string(activator->ThreadIds().at(0)) + "]...";
    EXPECT_EQ(log.Count(record), 2);
    EXPECT_EQ(log.Count("cancel done."), 2);
    EXPECT_EQ(cancellations.Count(), 2);
}

TEST_F(AThreadActivator, DoesNotTouchAThreadThatHasEnded)
{
    MakeWith("Succeed");
    activator->Start();
    ASSERT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    ASSERT_TRUE(ItemThreadsEnd());
    activator->Stop();
    EXPECT_TRUE(log.Has("cancel tid[" + std::to_string(activator->ThreadIds().at(0)) + "]..."));
    EXPECT_TRUE(log.Has("cancel done."));
    EXPECT_EQ(cancellations.Count(), 0);
}

TEST_F(AThreadActivator, RemembersItsThreadsAcrossStarts)
{
    MakeWith("Serve");
    const ItemLibrary library = Library();
    for (int start = 1; start <= 3; ++start) {
        activator->Start();
        EXPECT_EQ(activator->ThreadIds().size(), static_cast<std::size_t>(start));
        ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == start; }));
        activator->Stop();
        ASSERT_TRUE(ItemThreadsEnd());
    }
    EXPECT_EQ(log.Count("cancel done."), 1 + 2 + 3);
}

TEST_F(AThreadActivator, LeavesItsThreadsRunningWhenItIsReleased)
{
    MakeWith("WaitAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    const std::weak_ptr<Bundle> watched = bundle;
    activator.reset();
    bundle.reset();
    EXPECT_FALSE(watched.expired()) << "the thread still uses the bundle";
    library.OpenGate();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_TRUE(ItemThreadsEnd());
    EXPECT_TRUE(watched.expired());
    EXPECT_EQ(cancellations.Count(), 0);
}

TEST_F(AThreadActivator, KeepsTheItemOfARunningThreadAcrossAnUpdate)
{
    MakeWith("WaitAtGate");
    const ItemLibrary library = Library();
    activator->Start();
    ASSERT_TRUE(Eventually(PATIENCE, [&] { return library.Entered() == 1; }));
    const std::weak_ptr<SystemServer::BundleManifest> old = bundle->GetManifest();
    collection.Bundle("tuner").ThreadMode().Library("another.so", "Succeed").Write();
    bundle->Update();
    EXPECT_FALSE(old.expired());
    library.OpenGate();
    EXPECT_TRUE(IsLogged("bundle[tuner] dyn lib[tunerd.so] activate done."));
    EXPECT_TRUE(ItemThreadsEnd());
    EXPECT_TRUE(old.expired());
}
