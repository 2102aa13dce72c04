#ifndef BUNDLECTL_PUT_HASH_H
#define BUNDLECTL_PUT_HASH_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Put {

/// SHA-256 of the added bytes. Used by one thread at a time.
class Hash {
public:
    Hash();
    ~Hash();
    Hash(const Hash&) = delete;
    Hash& operator=(const Hash&) = delete;

    /// The bytes are not kept.
    void Add(const void* data, std::size_t size);
    /// The hash in hexadecimal digits. Nothing may be added afterwards.
    std::string Finish();

private:
    struct State;
    const std::unique_ptr<State> m_state;
};

struct HashedFile {
    std::uint64_t size = 0;
    std::string hash;
};

/// Reads a file to its end.
/// @throws Refusal the file cannot be read
HashedFile HashFile(const std::string& path);

/// Two lower-case digits for each byte.
std::string HexOf(const unsigned char* data, std::size_t size);

} // namespace Put

#endif
