#ifndef BUNDLECTL_REMOVAL_CHECK_H
#define BUNDLECTL_REMOVAL_CHECK_H

#include "common/unique_fd.h"

#include <string>
#include <vector>

/// Tells whether a bundle's directory has gone. The server's reply does not: it says that the removal was run, not what
/// the removal could remove.
class RemovalCheck {
public:
    /// Made before the deletion, while the directory still has its name. It is held open, so that another one which
    /// comes to its place is not taken for it.
    /// @param directories those that may be the bundle's; the deletion removes one of them
    explicit RemovalCheck(const std::vector<std::string>& directories);

    /// What is left of the directory, for people. Empty when it has gone.
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
