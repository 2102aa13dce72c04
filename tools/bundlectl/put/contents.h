#ifndef BUNDLECTL_PUT_CONTENTS_H
#define BUNDLECTL_PUT_CONTENTS_H

#include "put/entry.h"
#include "put/refusal.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Shipping of bundles: packing, signing, installing into a collection.
namespace Put {

/// The files that describe the shipped content. They are in the bundle's root and are not part of the bundle.
constexpr const char CONTENTS_FILE[] = "BundleContents";
constexpr const char SIGNATURE_FILE[] = "BundleContents.sig";
/// The file that put writes into the root of an installed bundle.
constexpr const char VERSION_FILE[] = ".bundlectl";

/// The list of a bundle's files. A list that was read never leads out of the bundle: each path is relative and below
/// directories of the list, and so are the targets of links.
struct Contents {
    static constexpr std::size_t MOST_ENTRIES = 65'536;
    static constexpr std::size_t LONGEST_TEXT = std::size_t{16} * 1024 * 1024;

    std::vector<Entry> entries; ///< by path, a directory before its entries

    std::string Text() const;
    /// The sum of the files' sizes.
    std::uint64_t Size() const;
    const Entry* Find(std::string_view path) const;
};

/// Reads a list. @throws Refusal when it is broken or hostile
Contents ParseContents(std::string_view text);

/// Walks over a directory and hashes its files. Leaves out the three files above.
/// @throws Refusal when an entry cannot be packed: a device, a link that leads out, or a name that cannot be written
Contents ReadContents(const std::string& directory);

/// The differences between a directory and a list, one sentence each. Items may add files in their own folders, such as
/// "data". The root, "bin" and "script" are compared completely.
std::vector<std::string> Differences(const std::string& directory, const Contents& shipped);

} // namespace Put

#endif
