#ifndef TESTS_SUPPORT_EVENT_FIFO_H
#define TESTS_SUPPORT_EVENT_FIFO_H

#include "common/unique_fd.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

constexpr const char EVENT_FIFO[] = "/mnt/bolt/event.paas.kov";

/// A listener of the event service. The constructor makes the FIFO, the destructor removes it. Reads never wait.
class EventFifo {
public:
    EventFifo()
    {
        std::filesystem::create_directories("/mnt/bolt");
        std::filesystem::remove(EVENT_FIFO);
        EXPECT_EQ(::mkfifo(EVENT_FIFO, 0660), 0);
        m_fd.Reset(::open(EVENT_FIFO, O_RDWR | O_NONBLOCK | O_CLOEXEC));
        EXPECT_TRUE(m_fd.IsOpen());
    }
    EventFifo(const EventFifo&) = delete;
    EventFifo& operator=(const EventFifo&) = delete;
    ~EventFifo() { static_cast<void>(std::remove(EVENT_FIFO)); }

    /// The bytes written since the last call, at most 4096; empty when there are none.
    std::string Received() const
    {
        std::array<char, 4096> data{};
        const ssize_t size = ::read(m_fd.Get(), data.data(), data.size());
        return size > 0 ? std::string(data.data(), static_cast<std::size_t>(size)) : std::string();
    }

    /// Writes until the FIFO is full.
    void Fill() const
    {
        const std::string noise(4096, 'x');
        while (::write(m_fd.Get(), noise.data(), noise.size()) > 0) {
        }
    }

private:
    Common::UniqueFd m_fd;
};

#endif
