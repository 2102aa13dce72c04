#ifndef BUNDLECTL_MODEL_MANIFEST_LINE_H
#define BUNDLECTL_MODEL_MANIFEST_LINE_H

#include <optional>
#include <string>

namespace Model {

/// The line of a manifest that caused a refusal, counted from 1: the line with the key or the value that the refusal
/// names, or the head of the section that lacks the key. Empty when no single line caused it.
std::optional<int> LineOfFault(const std::string& manifestPath, const std::string& refusal);

} // namespace Model

#endif
