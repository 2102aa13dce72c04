#ifndef BUNDLECTL_PUT_CONTENTS_H
#define BUNDLECTL_PUT_CONTENTS_H

#include "put/entry.h"
#include "put/refusal.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Bundles as they are shipped: packed, signed, put into a collection.
namespace Put {

/// The files that tell of a bundle what was shipped. They lie in its root and are no part of it.
constexpr const char CONTENTS_FILE[] = "BundleContents";
constexpr const char SIGNATURE_FILE[] = "BundleContents.sig";
/// What put writes into the root of a bundle that it installs.
constexpr const char VERSION_FILE[] = ".bundlectl";

/// What a bundle consists of. A list that was read leads nowhere outside of the bundle: each path is relative and
/// stands below directories of the list, and so does what links lead to.
struct Contents {
    static constexpr std::size_t MOST_ENTRIES = 65'536;
    static constexpr std::size_t LONGEST_TEXT = std::size_t{16} * 1024 * 1024;

    std::vector<Entry> entries; ///< by path, a directory before what is in it

    std::string Text() const;
    /// The sum of the files' sizes.
    std::uint64_t Size() const;
    const Entry* Find(std::string_view path) const;
};

/// Reads a list. @throws Refusal when it is broken or hostile
Contents ParseContents(std::string_view text);

/// Walks over a directory and hashes its files. Leaves out the three files above.
/// @throws Refusal when something in it cannot be packed: a device, a link that leads out, a name that cannot be
/// written
Contents ReadContents(const std::string& directory);

/// Where a directory differs from a list, a sentence each. Files in folders of the items' own, such as "data", may be
/// added; all of the root, "bin" and "script" is compared.
std::vector<std::string> Differences(const std::string& directory, const Contents& shipped);

} // namespace Put

#endif
