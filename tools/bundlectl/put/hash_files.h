#ifndef BUNDLECTL_PUT_HASH_FILES_H
#define BUNDLECTL_PUT_HASH_FILES_H

#include "put/entry.h"

#include <string>
#include <vector>

namespace Put {

/// Reads the files of a list and fills in their hashes and sizes. Where there is much to read, several threads do it,
/// and all have ended when it returns.
/// @param root the directory that the paths begin at
/// @throws Refusal one of them cannot be read
void HashFiles(const std::string& root, std::vector<Entry>& entries);

} // namespace Put

#endif
