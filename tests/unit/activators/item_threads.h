#ifndef TESTS_UNIT_ACTIVATORS_ITEM_THREADS_H
#define TESTS_UNIT_ACTIVATORS_ITEM_THREADS_H

#include "bundle_thread_activator.h"

#include "support/collection_builder.h"
#include "support/eventually.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/own_process.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

/// An activator that shows its handles.
class SeenActivator : public SystemServer::BundleThreadActivator {
public:
    using BundleThreadActivator::BundleThreadActivator;
    const std::vector<unsigned long>& ThreadIds() const { return m_threadIds; }
};

/// The test's own handle of a library that an item thread opens. Both share the library's variables.
class ItemLibrary {
public:
    explicit ItemLibrary(const std::string& path) : m_library(::dlopen(path.c_str(), RTLD_NOW)) {}

    std::atomic<int>& Entered() const { return *Find<std::atomic<int>>("g_entered"); }
    void OpenGate() const { *Find<std::atomic<bool>>("g_gateIsOpen") = true; }
    /// Whether a thread in that function can be cancelled: a value of pthread_setcancelstate.
    int StateInConstructor() const { return *Find<std::atomic<int>>("g_stateInConstructor"); }
    int StateInEntry() const { return *Find<std::atomic<int>>("g_stateInEntry"); }
    std::string ThreadName() const { return Find<std::array<char, 17>>("g_threadName")->data(); }

private:
    template <class Variable> Variable* Find(const char* name) const
    {
        return static_cast<Variable*>(::dlsym(m_library, name));
    }

    void* m_library;
};

/// A bundle whose items run on threads of this process. None of the threads survives the test.
class ItemThreads : public ::testing::Test {
public:
    static constexpr std::chrono::seconds PATIENCE{20};

    ~ItemThreads() override
    {
        // No thread may still run when the process ends.
        for (const ItemLibrary& library : m_libraries) {
            library.OpenGate();
        }
        if (activator) {
            activator->Stop();
        }
        EXPECT_TRUE(ItemThreadsEnd());
    }

    void Make(const BundleBuilder& builder)
    {
        path = builder.Write();
        bundle = std::make_shared<SystemServer::Bundle>(std::make_shared<SystemServer::BundleStorageDir>(path));
        activator = std::make_shared<SeenActivator>(bundle);
        log.Restart();
    }

    /// A bundle of one library with the entry function.
    void MakeWith(const std::string& entryFunc)
    {
        Make(collection.Bundle("tuner").ThreadMode().Library("tunerd.so", entryFunc, THREAD_ITEM));
    }

    ItemLibrary Library(const std::string& name = "tunerd.so")
    {
        m_libraries.emplace_back(path + "/bin/" + name);
        return m_libraries.back();
    }

    bool ItemThreadsEnd() const
    {
        return Eventually(PATIENCE, [this] { return OwnProcess::Threads() <= m_threadsBefore; });
    }

    bool IsLogged(const std::string& message) const
    {
        return Eventually(PATIENCE, [&] { return log.Count(message) != 0; });
    }

    CollectionBuilder collection;
    std::string path;
    std::shared_ptr<SystemServer::Bundle> bundle;
    std::shared_ptr<SeenActivator> activator;
    LogCapture log;
    const CallCounter cancellations{Call::CANCEL_THREAD};

private:
    /// The number of threads before the test starts one. A sanitizer adds a thread of its own to the first.
    static int ThreadCountAtRest()
    {
        std::thread([] {}).join();
        EXPECT_TRUE(Eventually(PATIENCE, [] { return OwnProcess::Threads() <= 2; }));
        return OwnProcess::Threads();
    }

    const int m_threadsBefore = ThreadCountAtRest();
    std::vector<ItemLibrary> m_libraries;
};

#endif
