// Tests which sockets of a process bundlectl sees.
#include "model/sockets.h"

#include "common/unique_fd.h"
#include "support/temporary_directory.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Common::UniqueFd;

bool Has(const std::vector<std::string>& all, const std::string& one)
{
    return std::find(all.begin(), all.end(), one) != all.end();
}

/// A socket on the loopback interface. With port 0, the kernel chooses the port.
UniqueFd OnLoopback(int type, in_port_t& port)
{
    UniqueFd fd(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(fd.Get(), plain, size), 0);
    EXPECT_EQ(::getsockname(fd.Get(), plain, &size), 0);
    port = ntohs(address.sin_port);
    return fd;
}

std::vector<std::string> OfThisProcess()
{
    const Model::Proc proc;
    return Model::Sockets(proc, ::getpid()).Of(::getpid());
}

} // namespace

TEST(TheSocketsOfAProcess, AreThoseThatCanBeReached)
{
    const TemporaryDirectory directory;
    in_port_t listening = 0;
    in_port_t bound = 0;
    in_port_t silent = 0;
    const UniqueFd tcp = OnLoopback(SOCK_STREAM, listening);
    const UniqueFd other = OnLoopback(SOCK_STREAM, silent);
    const UniqueFd udp = OnLoopback(SOCK_DGRAM, bound);
    ASSERT_EQ(::listen(tcp.Get(), 1), 0);
    const UniqueFd local(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = directory / "socket";
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(local.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const std::vector<std::string> sockets = OfThisProcess();
    EXPECT_TRUE(Has(sockets, "tcp 127.0.0.1:" + std::to_string(listening)));
    EXPECT_TRUE(Has(sockets, "udp 127.0.0.1:" + std::to_string(bound)));
    EXPECT_TRUE(Has(sockets, "unix " + path));
    EXPECT_FALSE(Has(sockets, "tcp 127.0.0.1:" + std::to_string(silent)));
}

TEST(TheSocketsOfAProcess, AreListedOnceEach)
{
    in_port_t port = 0;
    const UniqueFd udp = OnLoopback(SOCK_DGRAM, port);
    const UniqueFd same(::dup(udp.Get()));
    const std::vector<std::string> sockets = OfThisProcess();
    EXPECT_EQ(std::count(sockets.begin(), sockets.end(), "udp 127.0.0.1:" + std::to_string(port)), 1);
}

TEST(TheSocketsOfAProcess, AreNoneWhereThereIsNoProcess)
{
    const Model::Proc proc;
    EXPECT_TRUE(Model::Sockets(proc, ::getpid()).Of(0).empty());
}
