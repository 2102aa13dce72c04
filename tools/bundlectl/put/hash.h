#ifndef BUNDLECTL_PUT_HASH_H
#define BUNDLECTL_PUT_HASH_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Put {

/// SHA-256 of what is added to it.
class Hash {
public:
    Hash();
    ~Hash();
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    void Add(const void* data, std::size_t size);
    /// In hexadecimal digits. Nothing is to be added afterwards.
    std::string Finish();

private:
    struct State;
    const std::unique_ptr<State> m_state;
};

struct HashedFile {
    std::uint64_t size = 0;
    std::string hash;
};

/// Reads a file to its end. @throws Refusal when it cannot be read
HashedFile HashFile(const std::string& path);

std::string HexOf(const unsigned char* data, std::size_t size);

} // namespace Put

#endif
