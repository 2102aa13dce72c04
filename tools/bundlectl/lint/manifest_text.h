#ifndef BUNDLECTL_LINT_MANIFEST_TEXT_H
#define BUNDLECTL_LINT_MANIFEST_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace Lint {

/// A line of a manifest that has a meaning.
struct ManifestEntry {
    int line = 0;
    std::string section; ///< as last written; empty before the first section
    std::string key;     ///< empty: the line opens the section
    std::string value;
};

/// A manifest with its line numbers, split as the server's reader splits it. It is not checked.
struct ManifestText {
    bool hasByteOrderMark = false;
    int firstCarriageReturn = 0; ///< the first line that ends as in DOS files; 0: none
    std::vector<ManifestEntry> entries;

    /// The entry in effect: the last with this name, without regard to case. Null when none has it.
    const ManifestEntry* Find(std::string_view section, std::string_view key) const;
    /// The line of Find; otherwise the line of the section's head; otherwise 0.
    int LineOf(std::string_view section, std::string_view key) const;
    /// The sections as first written, in the order of the file.
    std::vector<const ManifestEntry*> Sections() const;
};

ManifestText SplitManifest(std::string_view text);

/// Whether the server's manifest reader treats two names as the same.
bool SameName(std::string_view left, std::string_view right);

} // namespace Lint

#endif
