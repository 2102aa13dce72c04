#ifndef BUNDLECTL_REPLACED_FILE_H
#define BUNDLECTL_REPLACED_FILE_H

#include <string>

/// Puts a text in a file's place in one step: a reader finds the old text or the new one. False, after a sentence on
/// standard error, when it cannot be written.
bool ReplaceFile(const std::string& file, const std::string& text);

#endif
