#include "key.h"

#include "model/files.h"
#include "printable.h"
#include "refusal.h"

#include <sodium.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Put {

namespace {

constexpr std::string_view SECRET_KEY = "bundlectl-secret-key ";
constexpr std::string_view PUBLIC_KEY = "bundlectl-public-key ";
constexpr std::string_view SIGNATURE = "bundlectl-signature ";

template <std::size_t SIZE> using Bytes = std::array<unsigned char, SIZE>;

const unsigned char* BytesOf(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

void RequireLibrary()
{
    if (::sodium_init() < 0) {
        throw Refusal("the library for signatures cannot be used.");
    }
}

template <std::size_t SIZE> std::string LineOf(std::string_view kind, const Bytes<SIZE>& bytes)
{
    std::string text(sodium_base64_ENCODED_LEN(SIZE, sodium_base64_VARIANT_ORIGINAL), '\0');
    ::sodium_bin2base64(text.data(), text.size(), bytes.data(), SIZE, sodium_base64_VARIANT_ORIGINAL);
    text.resize(std::strlen(text.c_str()));
    return std::string(kind) + text + "\n";
}

/// False when the text is not such a line.
template <std::size_t SIZE> bool ParseLine(std::string_view text, std::string_view kind, Bytes<SIZE>& bytes)
{
    if (text.substr(0, kind.size()) != kind) {
        return false;
    }
    text.remove_prefix(kind.size());
    std::size_t size = 0;
    return ::sodium_base642bin(bytes.data(), SIZE, text.data(), text.size(), "\r\n ", &size, nullptr,
                               sodium_base64_VARIANT_ORIGINAL) == 0 &&
           size == SIZE;
}

template <std::size_t SIZE> Bytes<SIZE> ReadKey(const std::string& file, std::string_view kind)
{
    constexpr std::size_t most = 4096;
    const auto text = Model::ReadFileAtMost(file, most);
    if (!text) {
        throw Refusal("the key " + Printable(file) + " cannot be read: " + std::strerror(errno) + ".");
    }
    Bytes<SIZE> bytes{};
    if (!ParseLine(*text, kind, bytes)) {
        throw Refusal(Printable(file) + " is no " + (kind == SECRET_KEY ? "secret" : "public") +
                      " key. bundlectl keygen makes a pair.");
    }
    return bytes;
}

} // namespace

Keys MakeKeys()
{
    RequireLibrary();
    Bytes<crypto_sign_PUBLICKEYBYTES> publicKey{};
    Bytes<crypto_sign_SECRETKEYBYTES> secretKey{};
    ::crypto_sign_keypair(publicKey.data(), secretKey.data());
    Keys pair{LineOf(SECRET_KEY, secretKey), LineOf(PUBLIC_KEY, publicKey)};
    ::sodium_memzero(secretKey.data(), secretKey.size());
    return pair;
}

std::string Sign(std::string_view text, const std::string& secretKeyFile)
{
    RequireLibrary();
    auto key = ReadKey<crypto_sign_SECRETKEYBYTES>(secretKeyFile, SECRET_KEY);
    Bytes<crypto_sign_BYTES> signature{};
    ::crypto_sign_detached(signature.data(), nullptr, BytesOf(text), text.size(), key.data());
    ::sodium_memzero(key.data(), key.size());
    return LineOf(SIGNATURE, signature);
}

void RequireSignature(std::string_view text, std::string_view signature, const std::string& publicKeyFile)
{
    RequireLibrary();
    const auto key = ReadKey<crypto_sign_PUBLICKEYBYTES>(publicKeyFile, PUBLIC_KEY);
    Bytes<crypto_sign_BYTES> bytes{};
    if (signature.empty()) {
        throw Refusal("it is not signed. Sign it with bundlectl pack --key, or leave out --key.");
    }
    if (!ParseLine(signature, SIGNATURE, bytes) ||
        ::crypto_sign_verify_detached(bytes.data(), BytesOf(text), text.size(), key.data()) != 0) {
        throw Refusal("its signature is not that of the key " + Printable(publicKeyFile) + ".");
    }
}

} // namespace Put
