#ifndef BUNDLECTL_REPLACED_FILE_H
#define BUNDLECTL_REPLACED_FILE_H

#include <string>

/// Replaces a file's text in one step: a reader finds the old text or the new one. If it cannot be written, prints a
/// sentence to standard error and returns false.
bool ReplaceFile(const std::string& file, const std::string& text);

#endif
