#ifndef TESTS_UNIT_MANAGER_MANAGED_BUNDLES_H
#define TESTS_UNIT_MANAGER_MANAGED_BUNDLES_H

#include "bundle_manager.h"
#include "support/collection_builder.h"
#include "support/in_memory_factory.h"
#include "support/loaded_paths.h"
#include "support/log_capture.h"

#include <Poco/Exception.h>

#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <string>

/// A manager over bundle directories, and one over bundles in memory.
class ManagedBundles : public ::testing::Test {
public:
    using Bundle = SystemServer::Bundle;
    using BundlePtr = std::shared_ptr<Bundle>;

    /// The text of the exception by which an operation refuses. Fails the test when it throws nothing or another class.
    template <class Operation> static std::string Refusal(const Operation& operation)
    {
        try {
            operation();
        } catch (const Poco::InvalidArgumentException& e) {
            EXPECT_EQ(e.code(), 0);
            return e.message();
        } catch (const std::exception& e) {
            ADD_FAILURE() << "refused by another exception: " << e.what();
        }
        return "";
    }

    BundlePtr Load(const BundleBuilder& builder) { return manager.LoadBundle(builder.Write()); }

    BundlePtr LoadResolved(const BundleBuilder& builder)
    {
        BundlePtr bundle = Load(builder);
        manager.ResolveBundle(bundle);
        return bundle;
    }

    BundlePtr LoadStarted(const BundleBuilder& builder)
    {
        BundlePtr bundle = LoadResolved(builder);
        manager.StartBundle(bundle);
        return bundle;
    }

    void LoadAll()
    {
        std::string directory = collection.Path();
        manager.LoadAllBundles(directory);
    }

    /// A script that adds a line to the notes.
    std::string Noting(const std::string& line) const { return "#!/bin/sh\necho " + line + " >> " + notesPath + "\n"; }
    std::string Notes() const { return ReadFile(notesPath); }

    CollectionBuilder collection;
    TemporaryDirectory outside;
    const std::string notesPath = outside / "notes";
    SystemServer::BundleManager manager{std::make_shared<SystemServer::BundleStorageDirFactory>()};

    std::shared_ptr<InMemoryFactory> memory = std::make_shared<InMemoryFactory>();
    SystemServer::BundleManager memoryManager{memory};

    LogCapture log;
};

#endif
