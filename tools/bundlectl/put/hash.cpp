#include "hash.h"

#include "common/unique_fd.h"
#include "printable.h"
#include "refusal.h"

#include <sodium.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

namespace Put {

struct Hash::State {
    crypto_hash_sha256_state state;
};

Hash::Hash() : m_state(std::make_unique<State>())
{
    ::crypto_hash_sha256_init(&m_state->state);
}

Hash::~Hash() = default;

void Hash::Add(const void* data, std::size_t size)
{
    ::crypto_hash_sha256_update(&m_state->state, static_cast<const unsigned char*>(data), size);
}

std::string Hash::Finish()
{
    std::array<unsigned char, crypto_hash_sha256_BYTES> hash{};
    ::crypto_hash_sha256_final(&m_state->state, hash.data());
    return HexOf(hash.data(), hash.size());
}

HashedFile HashFile(const std::string& path)
{
    const Common::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    HashedFile result;
    Hash hash;
    constexpr std::size_t piece = std::size_t{128} * 1024;
    std::vector<char> buffer(piece);
    for (;;) {
        const ssize_t size = ::read(fd.Get(), buffer.data(), buffer.size());
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            throw Refusal(Printable(path) + ": " + std::strerror(errno) + ".");
        }
        if (size == 0) {
            break;
        }
        hash.Add(buffer.data(), static_cast<std::size_t>(size));
        result.size += static_cast<std::uint64_t>(size);
    }
    result.hash = hash.Finish();
    return result;
}

std::string HexOf(const unsigned char* data, std::size_t size)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[data[i] / 16];
        text += digits[data[i] % 16];
    }
    return text;
}

} // namespace Put
