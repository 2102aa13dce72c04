#ifndef TESTS_BUNDLECTL_AUTHOR_TRIAL_TEST_H
#define TESTS_BUNDLECTL_AUTHOR_TRIAL_TEST_H

#include "bundlectl/verb_test.h"
#include "support/collection_builder.h"
#include "support/program.h"
#include "support/temporary_directory.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

/// Bundles for the verbs that run them in namespaces of their own.
class TrialTest : public ::testing::Test {
public:
    /// The command line of bundlectl with the built server.
    static std::vector<std::string> Words(std::vector<std::string> arguments);
    static Ended Run(const std::vector<std::string>& arguments);

    /// A command that runs until a test ends it. No other process has the same command line.
    std::string Sleep() const { return "exec sleep " + m_mark + "\n"; }
    /// Whether a process of that command runs anywhere on this machine.
    bool IsAnySleeping() const;

    /// What a program could leave behind: the mounts, and the entries of /mnt and of the temporary directory.
    static std::set<std::string> Surroundings();

    CollectionBuilder bundles;
    TemporaryDirectory notes;

protected:
    void SetUp() override;

private:
    static std::string NewMark();

    const std::string m_mark = NewMark();
};

#endif
