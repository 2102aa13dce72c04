#ifndef CONTENT_HASH_H
#define CONTENT_HASH_H

#include <cstddef>
#include <cstdint>

namespace SystemServer {

/// Distinguishes contents by eight bytes each (FNV-1a). By chance, one in 2^64 pairs has the same hash. Such a pair can
/// be made on purpose, but harms only its author's bundle. Used by one thread at a time.
class ContentHash {
public:
    /// The next piece of the content; pieces may have any size.
    void Add(const char* data, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i) {
            m_value = (m_value ^ static_cast<unsigned char>(data[i])) * 0x100000001b3;
        }
    }

    bool operator==(const ContentHash& other) const { return m_value == other.m_value; }
    bool operator!=(const ContentHash& other) const { return m_value != other.m_value; }

private:
    std::uint64_t m_value = 0xcbf29ce484222325;
};

} // namespace SystemServer

#endif
