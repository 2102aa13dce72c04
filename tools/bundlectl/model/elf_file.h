#ifndef BUNDLECTL_MODEL_ELF_FILE_H
#define BUNDLECTL_MODEL_ELF_FILE_H

#include <optional>
#include <string>

namespace Model {

/// The properties of a program or library.
struct ElfFile {
    int bits = 0; ///< 32 or 64
    int machine = 0;
    std::string interpreter; ///< empty: it needs none
};

/// Reads the header of a file. Empty when the file is not an ELF file of this byte order, or cannot be read.
std::optional<ElfFile> ReadElf(const std::string& path);

/// Whether the library offers a function of that name. Empty when its tables cannot be read.
std::optional<bool> OffersFunction(const std::string& path, const std::string& function);

} // namespace Model

#endif
