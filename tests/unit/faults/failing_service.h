#ifndef TESTS_UNIT_FAULTS_FAILING_SERVICE_H
#define TESTS_UNIT_FAULTS_FAILING_SERVICE_H

#include "support/collection_builder.h"
#include "support/fault.h"
#include "support/log_capture.h"
#include "support/own_process.h"
#include "support/running_server.h"
#include "support/unix_client.h"

#include <lumo.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

constexpr auto PATIENCE = std::chrono::seconds(30);
constexpr char SERVICE[] = "test.service";
inline const std::string SOCKET = std::string("/mnt/bolt/") + SERVICE;

/// A failing call of the host platform for a service. The test program has a /mnt of its own.
class AFailingCall : public ::testing::Test {
public:
    AFailingCall() { std::filesystem::create_directories("/mnt/bolt"); }

    static bool IsServed(const std::string& content = "hello")
    {
        const auto reply = UnixClient(SOCKET).Ask(PacketOf(ECHO, 0, content), PATIENCE);
        return reply && reply->substr(sizeof(lumo_header)) == content;
    }

    const RealSending real;
    LogCapture log;
};

#endif
