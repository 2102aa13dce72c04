#ifndef BUNDLECTL_PUT_BUNDLE_ARCHIVE_H
#define BUNDLECTL_PUT_BUNDLE_ARCHIVE_H

#include "put/contents.h"

#include <cstdint>
#include <string>

namespace Put {

/// The limits of an archive's content: its own statements are not trusted.
struct ArchiveLimits {
    std::uint64_t size = std::uint64_t{2} * 1024 * 1024 * 1024; ///< of all files together, in bytes
};

/// The data of an archive besides the bundle's files.
struct Shipped {
    Contents contents;
    std::string text;      ///< the list of contents
    std::string signature; ///< empty: it is not signed
};

/// Packs a bundle's directory: a tar archive, compressed by gzip. The same files give the same archive, byte by byte.
/// The file is made in one step: it is complete or unchanged.
/// @param keyFile the secret key to sign with; empty: none
/// @throws Refusal
Shipped Pack(const std::string& directory, const std::string& file, const std::string& keyFile);

/// Reads an archive to its end and compares each file with the list of contents. Writes nothing.
/// @throws Refusal when it is broken, truncated or hostile
Shipped CheckArchive(const std::string& file, const ArchiveLimits& limits);

/// The same, and also writes the files, the list and its signature into an existing empty directory. After a Refusal,
/// the directory contains a part of them.
Shipped Unpack(const std::string& file, const std::string& directory, const ArchiveLimits& limits);

} // namespace Put

#endif
