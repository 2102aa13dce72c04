#ifndef BUNDLECTL_PUT_ENTRY_H
#define BUNDLECTL_PUT_ENTRY_H

#include <cstdint>
#include <string>

namespace Put {

/// A file, a directory or a link of a bundle.
struct Entry {
    enum Kind : char { FILE = 'f', DIRECTORY = 'd', LINK = 'l' };

    Kind kind = FILE;
    unsigned mode = 0;      ///< permissions; 0 for a link
    std::uint64_t size = 0; ///< of a file
    std::string hash;       ///< of a file: SHA-256, in hexadecimal digits
    std::string target;     ///< of a link
    std::string path;       ///< from the bundle's root
};

} // namespace Put

#endif
