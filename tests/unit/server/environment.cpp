#include "support/private_mnt.h"

// Gives the tests a private /mnt for the event service and the service's socket.
[[maybe_unused]] static const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);
