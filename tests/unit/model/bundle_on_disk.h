#ifndef TESTS_UNIT_MODEL_BUNDLE_ON_DISK_H
#define TESTS_UNIT_MODEL_BUNDLE_ON_DISK_H

#include "bundle.h"

#include "support/collection_builder.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

/// The directory of a bundle "media" without scripts.
class BundleOnDisk : public ::testing::Test {
public:
    static std::shared_ptr<SystemServer::Bundle> BundleAt(const std::string& root)
    {
        return std::make_shared<SystemServer::Bundle>(std::make_shared<SystemServer::BundleStorageDir>(root));
    }

    std::string ScriptPath(const std::string& script) const { return path + "/./script/" + script; }

    CollectionBuilder collection;
    const std::string path = collection.Bundle("media").Write();
    LogCapture log;
};

#endif
