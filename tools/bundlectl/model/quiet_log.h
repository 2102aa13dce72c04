#ifndef BUNDLECTL_MODEL_QUIET_LOG_H
#define BUNDLECTL_MODEL_QUIET_LOG_H

#include <functional>
#include <string>

namespace Model {

/// Takes the last error record of this thread; empty when it has none. The server's classes log what they do. A program
/// that links this library is not a server, so it discards their records, apart from each thread's last error.
std::string TakeServerError();

/// Receives the records of the server's classes on this thread: the level and the text, not escaped.
using RecordSink = std::function<void(int level, const std::string& text)>;

/// @param sink empty: the records are discarded again
void SetRecordSink(RecordSink sink);

} // namespace Model

#endif
