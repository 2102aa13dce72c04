#ifndef BUNDLECTL_PUT_KEY_H
#define BUNDLECTL_PUT_KEY_H

#include <string>
#include <string_view>

namespace Put {

/// Ed25519 keys in files of one line: "bundlectl-secret-key BASE64" and "bundlectl-public-key BASE64".
struct Keys {
    std::string secret;    ///< the line of the file
    std::string publicKey; ///< the line of the file
};

Keys MakeKeys();

/// The line of a signature file, "bundlectl-signature BASE64".
/// @throws Refusal the key file cannot be read or is not a key file
std::string Sign(std::string_view text, const std::string& secretKeyFile);

/// @throws Refusal the signature does not fit the text and this key, or one of the two cannot be read
void RequireSignature(std::string_view text, std::string_view signature, const std::string& publicKeyFile);

} // namespace Put

#endif
