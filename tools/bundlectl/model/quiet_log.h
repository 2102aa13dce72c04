#ifndef BUNDLECTL_MODEL_QUIET_LOG_H
#define BUNDLECTL_MODEL_QUIET_LOG_H

#include <string>

namespace Model {

/// The server's classes log what they do. In a program that links this library their records go nowhere, because they
/// are no server's. The last error of this thread is kept; this takes it, empty when there is none.
std::string TakeServerError();

} // namespace Model

#endif
