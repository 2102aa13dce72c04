#ifndef BUNDLECTL_MODEL_QUIET_LOG_H
#define BUNDLECTL_MODEL_QUIET_LOG_H

#include <functional>
#include <string>

namespace Model {

/// The server's classes log what they do. In a program that links this library their records go nowhere, because they
/// are no server's. The last error of this thread is kept; this takes it, empty when there is none.
std::string TakeServerError();

/// Gets what the server's classes log on this thread: the level and the text, not escaped.
using RecordSink = std::function<void(int level, const std::string& text)>;

/// @param sink empty: the records go nowhere again
void SetRecordSink(RecordSink sink);

} // namespace Model

#endif
