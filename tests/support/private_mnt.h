#ifndef TESTS_SUPPORT_PRIVATE_MNT_H
#define TESTS_SUPPORT_PRIVATE_MNT_H

#include <gtest/gtest.h>

#include <string>

/// Gives this process, the threads it starts and its children an empty /mnt of their own, so that tests which use the
/// service directory neither meet each other nor a server of this machine. Before the first thread is started. Root
/// needs nothing more; anybody else needs user namespaces.
/// @return empty, or what is missing
std::string EnterPrivateMnt();

/// The same for a whole test program, which fails without it:
///     const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);
class PrivateMnt : public ::testing::Environment {
public:
    void SetUp() override;
};

#endif
