#ifndef TESTS_SYSTEM_HOSTILE_SERVICE_BAD_PACKETS_H
#define TESTS_SYSTEM_HOSTILE_SERVICE_BAD_PACKETS_H

#include <lumo.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>

/// The status of the reply to a packet; none when the packet ends its connection.
std::optional<std::uint16_t> AnswerTo(const std::string& packet);

/// Packets that no correct client sends. They are the same in each run.
class BadPackets {
public:
    struct Packet {
        std::string bytes;
        bool hasDescriptors = false;
    };

    Packet Next();

private:
    /// A number from 0 to one less than the end.
    std::size_t Below(std::size_t end);
    std::string Bytes(std::size_t size);
    std::string Request(std::size_t contentSize);
    lumo_header AnyHeader();
    std::string UnpleasantName();

    std::mt19937 m_random{20261121}; // NOLINT(cert-msc32-c,cert-msc51-cpp): the same packets in each run
};

#endif
