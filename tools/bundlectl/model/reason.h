#ifndef BUNDLECTL_MODEL_REASON_H
#define BUNDLECTL_MODEL_REASON_H

#include "end_name.h"

#include <string>
#include <vector>

namespace Model {

struct ItemEnd;

/// Why a bundle is as it is.
struct Reason {
    const char* kind = "";             ///< a word for programs: "required-missing"
    std::string text;                  ///< sentences for people
    std::string brief;                 ///< a few words of it, for a line of a table
    std::string remedy;                ///< what mends it: a command or an advice; empty: nothing is to be mended
    bool isRecomputed = false;         ///< the log does not tell it: it was found out from the files as they are now
    std::vector<std::string> evidence; ///< the records that prove it
};

/// "SIGSEGV", "signal 44", "status 3".
std::string NameOfEnd(const ItemEnd& end);

} // namespace Model

#endif
