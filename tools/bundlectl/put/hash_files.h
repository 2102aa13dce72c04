#ifndef BUNDLECTL_PUT_HASH_FILES_H
#define BUNDLECTL_PUT_HASH_FILES_H

#include "put/entry.h"

#include <string>
#include <vector>

namespace Put {

/// Reads the files of a list and fills in their hashes and sizes. Uses several threads for large lists; all have ended
/// when it returns.
/// @param root the directory at which the paths begin
/// @throws Refusal one of them cannot be read
void HashFiles(const std::string& root, std::vector<Entry>& entries);

} // namespace Put

#endif
