#ifndef BUNDLECTL_LINT_MANIFEST_TEXT_H
#define BUNDLECTL_LINT_MANIFEST_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace Lint {

/// A line of a manifest that means something.
struct ManifestEntry {
    int line = 0;
    std::string section; ///< as it is written last; empty before the first section
    std::string key;     ///< empty: the line opens the section
    std::string value;
};

/// A manifest with its line numbers, split as the server's reader splits it. It is not checked.
struct ManifestText {
    bool hasByteOrderMark = false;
    int firstCarriageReturn = 0; ///< the first line that ends like those of DOS; 0: none
    std::vector<ManifestEntry> entries;

    /// The entry that counts: the last of that name, without regard to case. Null when there is none.
    const ManifestEntry* Find(std::string_view section, std::string_view key) const;
    /// The line of Find, or else that of the section's head, or else 0.
    int LineOf(std::string_view section, std::string_view key) const;
    /// The sections as they are written first, in the order of the file.
    std::vector<const ManifestEntry*> Sections() const;
};

ManifestText SplitManifest(std::string_view text);

/// Whether two names are the same to the server's reader of manifests.
bool SameName(std::string_view left, std::string_view right);

} // namespace Lint

#endif
