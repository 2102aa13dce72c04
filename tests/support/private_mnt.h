#ifndef TESTS_SUPPORT_PRIVATE_MNT_H
#define TESTS_SUPPORT_PRIVATE_MNT_H

#include <gtest/gtest.h>

#include <string>

/// Gives this process, its later threads and its children an empty private /mnt. So tests that use the service
/// directory meet neither each other nor a server of this machine. Call it before the first thread starts. Users other
/// than root need user namespaces.
/// @return empty, or what is missing
std::string EnterPrivateMnt();

/// The same for a whole test program, which fails without a private /mnt:
///     const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);
class PrivateMnt : public ::testing::Environment {
public:
    void SetUp() override;
};

#endif
