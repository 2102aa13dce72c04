#ifndef BUNDLECTL_MODEL_REASON_H
#define BUNDLECTL_MODEL_REASON_H

#include "end_name.h"

#include <string>
#include <vector>

namespace Model {

struct ItemEnd;

/// A reason for a bundle's state.
struct Reason {
    const char* kind = "";             ///< a word for programs: "required-missing"
    std::string text;                  ///< sentences for people
    std::string brief;                 ///< a short form for a line of a table
    std::string remedy;                ///< what repairs it: a command or advice; empty: no repair is necessary
    bool isRecomputed = false;         ///< it comes from the present files, not from the log
    std::vector<std::string> evidence; ///< the records that prove it
};

/// Appends a reason. Returns it; valid until the next is appended.
Reason& AddReason(std::vector<Reason>& reasons, const char* kind, std::string text, std::string brief,
                  std::string remedy);

/// "SIGSEGV", "signal 44", "status 3".
std::string NameOfEnd(const ItemEnd& end);

} // namespace Model

#endif
