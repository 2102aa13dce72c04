#ifndef BUNDLECTL_MODEL_FILE_CHECK_H
#define BUNDLECTL_MODEL_FILE_CHECK_H

#include "collection.h"

#include <optional>
#include <string>

namespace Model {

/// Why an item cannot be run, found out from its file as it is now.
struct FileFault {
    std::string text;   ///< a sentence for people
    std::string remedy; ///< what mends it: a command, or an advice
};

/// Looks at an item's file: whether it is there, may be executed, is made for this machine, and has its interpreter
/// and, a library, the libraries that it needs and its entry function. Empty when nothing is wrong with it.
/// @param isThread it is loaded into the server; else it is executed, or loaded by the loader
std::optional<FileFault> CheckItem(const DeclaredItem& item, bool isThread);

} // namespace Model

#endif
