#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <map>
#include <string>
#include <vector>

void WriteFile(const std::string& path, const std::string& content);
void AppendFile(const std::string& path, const std::string& content);
/// Writes an executable file in one step: readers find the old file or the whole new one.
void WriteProgram(const std::string& path, const std::string& content);
/// The file's content; empty when it does not exist.
std::string ReadFile(const std::string& path);
/// Whether an entry of any kind has this path, a dangling link included.
bool Exists(const std::string& path);
std::vector<std::string> Lines(const std::string& text);

/// Every entry below a directory: maps its relative path to its type, mode and content in one text.
using Tree = std::map<std::string, std::string>;
Tree TreeOf(const std::string& path);

#endif
