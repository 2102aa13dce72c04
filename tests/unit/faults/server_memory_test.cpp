#include "inherited_state.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/own_process.h"
#include "support/private_mnt.h"
#include "support/scale.h"
#include "unit/faults/memory_sweep.h"
#include "unit/server/open_server.h"

#include <Poco/Delegate.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <system_error>

using namespace std::chrono_literals;
using SystemServer::BundleDirWatcher;

namespace {

[[maybe_unused]] const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

// Too long for a string's internal buffer, so that copying a name can fail too.
constexpr const char NAME[] = "a bundle whose name has no place in a small string";

/// A running server, a new one in each round. Its watcher raises no events; the tests raise them.
class WithoutMemoryTheServer : public ARequest {
public:
    WithoutMemoryTheServer() { SystemServer::BoundDescriptorLimit(); }
    ~WithoutMemoryTheServer() override { EXPECT_FALSE(OwnProcess::HasChildren()); }

    BundleBuilder Builder() const
    {
        return collection.Bundle(NAME).Install("#!/bin/sh\n").Update("#!/bin/sh\n").Uninstall("#!/bin/sh\n");
    }
    std::string Path() const { return collection / NAME; }

    void StartAnew()
    {
        server.reset();
        StartUp();
        log.Restart();
    }

    /// The watcher catches the exceptions of handlers: see its tests.
    void Call(void (OpenServer::*handler)(const DirectoryEvent&), DirectoryWatcher::DirectoryEventType type)
    {
        ((*server).*handler)(DirectoryEvent(m_item, type));
    }

    template <class Prepare, class Operation, class Check>
    void Sweep(const Prepare& prepare, const Operation& operation, const Check& check)
    {
        const NoPauses hurry;
        const int descriptors = OwnProcess::Descriptors();
        MemorySweep sweep;
        sweep.Run(
            AllocationFault::Of::CALLER,
            [&] {
                std::filesystem::remove_all(Path());
                prepare();
            },
            operation,
            [&] {
                check(sweep);
                server.reset();
                EXPECT_EQ(OwnProcess::Descriptors(), descriptors);
            });
    }

private:
    const Poco::File m_item{Path()};
};

/// Closes what the framework's part of a watcher leaves open when the watcher cannot be made. The server ends then; a
/// test that continues would soon reach the limit of its user.
void CloseWhatTheFrameworkLeaves()
{
    for (int fd = STDERR_FILENO + 1; fd < 1024; ++fd) {
        std::error_code error;
        const auto target = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
        const bool isOwnPipe = target.string().rfind("pipe:", 0) == 0 && (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
        if (target == "anon_inode:inotify" || isOwnPipe) {
            ::close(fd);
        }
    }
}

/// A watcher that scans its collection without a pause.
class WithoutMemoryTheWatcher : public ::testing::Test {
public:
    void OnAdded(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("added", event); }
    void OnRemoved(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("removed", event); }
    void OnModified(const Poco::DirectoryWatcher::DirectoryEvent& event) { Note("modified", event); }

    void Watch()
    {
        watcher.emplace(collection.Path(), 5ms);
        watcher->itemAdded += Poco::delegate(this, &WithoutMemoryTheWatcher::OnAdded);
        watcher->itemRemoved += Poco::delegate(this, &WithoutMemoryTheWatcher::OnRemoved);
        watcher->itemModified += Poco::delegate(this, &WithoutMemoryTheWatcher::OnModified);
    }

    /// Whether the event is raised, or recorded as lost before its handler.
    ::testing::AssertionResult Comes(const std::string& event)
    {
        const bool isThere = Eventually(PATIENCE, [&] {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return m_events.count(event) != 0 || log.HasPart("handler of [" + (collection / NAME) + "] fail.");
        });
        return isThere ? ::testing::AssertionSuccess() : log.Has(event + " does not come");
    }

    /// Repeats a change of the collection; each time another allocation fails.
    template <class Change> void Sweep(const std::string& event, const Change& change)
    {
        for (long round = 0; !HasFailure(); ++round) {
            SCOPED_TRACE("failing once after " + std::to_string(round) + " allocations");
            MakeReady();
            const AllocationFault fault(round, AllocationFault::Lasting::ONCE, AllocationFault::Of::OTHER_THREADS);
            change();
            EXPECT_TRUE(Comes(event));
            if (!fault.HasStruck()) {
                EXPECT_GT(round, 5) << "it needs almost no memory";
                return;
            }
            EXPECT_TRUE(log.HasPart("bundle collection dir[" + collection.Path() + "/] can not be followed: ") ||
                        log.HasPart("handler of ["));
        }
    }

    /// A watcher that has scanned the collection with the bundle in it.
    void MakeReady()
    {
        watcher.reset();
        std::filesystem::remove_all(staging / NAME);
        std::filesystem::remove_all(collection / NAME);
        collection.Bundle(NAME).Item("an item", "").Write();
        staging.Bundle(NAME).Write();
        Watch();
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.clear();
        log.Restart();
    }

    CollectionBuilder collection;
    CollectionBuilder staging;
    LogCapture log;
    std::optional<BundleDirWatcher> watcher;

private:
    void Note(const char* what, const Poco::DirectoryWatcher::DirectoryEvent& /*event*/)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_events.insert(what); // short, so that only the set's entry needs memory
    }

    std::mutex m_mutex;
    std::set<std::string> m_events;
};

} // namespace

TEST_F(WithoutMemoryTheServer, AnswersEachDeleteRequestOnce)
{
    lumo_message* msg = nullptr;
    Sweep(
        [&] {
            Builder().Write();
            StartAnew();
            TakeSentMessages();
            msg = lumo_message_new(0);
            msg->header.method = 4;
            const std::string field = NameField(NAME);
            lumo_content_add(msg, field.data(), static_cast<int>(field.size()), 0);
        },
        [&] { OpenServer::ProcessMsg(msg, &connection); },
        [&](const MemorySweep& sweep) {
            EXPECT_FALSE(sweep.RoundFailed()) << "the handler has thrown";
            lumo_message_put(msg);
            const auto sent = TakeSentMessages();
            ASSERT_EQ(sent.size(), 1U);
            const int status = sent[0].header.status;
            EXPECT_TRUE(status == 400 ? log.HasPart("fail") || log.HasPart("exception") : status == 200) << status;
            // A removal whose launch is reported as failed may be running.
            EXPECT_TRUE(Exists(Path()) == (status != 200) || log.HasPart("remove cmd exception"));
        });
}

TEST_F(WithoutMemoryTheServer, LoadsAnAddedBundleAtTheNextAttempt)
{
    Sweep(
        [&] {
            StartAnew();
            Builder().Write();
        },
        [&] { Call(&OpenServer::OnItemAdded, DirectoryWatcher::DW_ITEM_ADDED); },
        [&](const MemorySweep& sweep) {
            const bool isActive = log.Has("start bundle done.");
            const bool isLeft = log.HasPart("is not unloaded :"); // no memory to run "uninstall.sh" either
            EXPECT_TRUE(isActive || sweep.RoundFailed() || log.HasPart("fail") || log.HasPart("run script[")) << "lost";
            EXPECT_FALSE(isLeft && sweep.FailsOnce());
            if (!isActive && !isLeft) {
                RaiseAdded(Path());
            }
            EXPECT_EQ(Delete(NAME), isLeft ? 400 : 200);
        });
}

TEST_F(WithoutMemoryTheServer, StopsARemovedBundleOrReportsThatItCannot)
{
    Sweep(
        [&] {
            Builder().Write();
            StartAnew();
        },
        [&] { Call(&OpenServer::OnItemRemoved, DirectoryWatcher::DW_ITEM_REMOVED); },
        [&](const MemorySweep& sweep) {
            const bool isUnloaded = log.Has("unload bundle done.");
            EXPECT_NE(isUnloaded, sweep.RoundFailed() || log.HasPart("uninstalling bundle["));
            const bool isStopped = log.Has("stop bundle done.");
            EXPECT_EQ(Delete(NAME), isUnloaded ? 404 : isStopped ? 400 : 200);
        });
}

TEST_F(WithoutMemoryTheServer, RestartsAModifiedBundleOrReportsThatItCannot)
{
    Sweep(
        [&] {
            Builder().Write();
            StartAnew();
        },
        [&] { Call(&OpenServer::OnItemModified, DirectoryWatcher::DW_ITEM_MODIFIED); },
        [&](const MemorySweep& sweep) {
            const bool isRestarted = log.Has("start bundle done.");
            EXPECT_NE(isRestarted, sweep.RoundFailed() || log.HasPart("update bundle["));
            const bool isStopped = log.Has("stop bundle done.") && !isRestarted;
            EXPECT_EQ(Delete(NAME), isStopped ? 400 : 200);
        });
}

TEST_F(WithoutMemoryTheServer, EndsItsStartWithAnExceptionAndStartsTheNextTime)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the framework leaks an object that it cannot complete";
#endif
    const NoPauses hurry;
    Builder().Write();
    MemorySweep sweep(Scaled(29L, 1L)); // a round may wait a fifth of a second for the framework
    sweep.Run(
        AllocationFault::Of::CALLER, [&] { ReadConfig(ConfigFor(collection.Path())); },
        [&] { server->initialize(*server); },
        [&] {
            EXPECT_EQ(sweep.RoundFailed(), !log.Has("init bundle server done."));
            server.reset();
            CloseWhatTheFrameworkLeaves();
            StartUp();
            EXPECT_TRUE(log.Has(std::string("bundle[") + NAME + "] state changing[Starting] -> [Active]"));
            server.reset();
            log.Restart();
        });
}

TEST_F(WithoutMemoryTheWatcher, RaisesAnAddedItemAtALaterScan)
{
    Sweep("added", [this] {
        std::filesystem::remove_all(collection / NAME);
        EXPECT_TRUE(Comes("removed"));
        std::filesystem::rename(staging / NAME, collection / NAME);
    });
}

TEST_F(WithoutMemoryTheWatcher, RaisesARemovedItemAtALaterScan)
{
    Sweep("removed", [this] { std::filesystem::remove_all(collection / NAME); });
}

TEST_F(WithoutMemoryTheWatcher, RaisesAModifiedItemAtALaterScan)
{
    Sweep("modified", [this] { WriteFile(collection / NAME + "/bin/another item", ""); });
}

TEST_F(WithoutMemoryTheWatcher, IsMadeWholeOrNotAtAll)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "the framework leaks an object that it cannot complete";
#endif
    collection.Bundle(NAME).Write();
    const int threads = OwnProcess::Threads();
    MemorySweep sweep;
    sweep.Run(
        AllocationFault::Of::CALLER, [] {}, [this] { watcher.emplace(collection.Path(), 1h); },
        [&] {
            EXPECT_NE(sweep.RoundFailed(), watcher.has_value());
            watcher.reset();
            CloseWhatTheFrameworkLeaves();
            EXPECT_TRUE(Eventually(PATIENCE, [&] { return OwnProcess::Threads() <= threads + 1; }));
        });
}
