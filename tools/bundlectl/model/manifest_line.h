#ifndef BUNDLECTL_MODEL_MANIFEST_LINE_H
#define BUNDLECTL_MODEL_MANIFEST_LINE_H

#include <optional>
#include <string>

namespace Model {

/// The line of a manifest that a refusal is about, counted from 1: the one with the key or the value that it names, or
/// the head of the section that lacks the key. Empty when the refusal is about no single line.
std::optional<int> LineOfFault(const std::string& manifestPath, const std::string& refusal);

} // namespace Model

#endif
