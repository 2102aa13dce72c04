#ifndef BUNDLECTL_REMOVAL_CHECK_H
#define BUNDLECTL_REMOVAL_CHECK_H

#include "common/unique_fd.h"

#include <string>
#include <vector>

/// Checks whether a bundle's directory has gone. The server's reply says only that the removal was run, not what it has
/// removed.
class RemovalCheck {
public:
    /// Made before the deletion, while the directory still has its name. Holds it open, to distinguish it from another
    /// directory that takes its place.
    /// @param directories the possible directories of the bundle; the deletion removes one of them
    explicit RemovalCheck(const std::vector<std::string>& directories);

    /// The remaining content of the directory, for people. Empty when the directory has gone.
    std::string Left() const;

private:
    struct Directory {
        std::string path;
        Common::UniqueFd held;
    };

    static bool IsThere(const Directory& directory);

    std::vector<Directory> m_directories;
};

#endif
