#ifndef BUNDLECTL_MODEL_FILE_CHECK_H
#define BUNDLECTL_MODEL_FILE_CHECK_H

#include "collection.h"

#include <optional>
#include <string>

namespace Model {

/// Why an item cannot be run, according to its present file.
struct FileFault {
    std::string text;   ///< a sentence for people
    std::string remedy; ///< what repairs it: a command, or advice
};

/// Checks an item's file: whether it exists, may be executed, is made for this machine and has its interpreter. For a
/// library, also checks the libraries that it needs and its entry function. Empty when it finds no fault.
/// @param isThread the server loads it; otherwise it is executed, or the loader loads it
std::optional<FileFault> CheckItem(const DeclaredItem& item, bool isThread);

} // namespace Model

#endif
