#ifndef BUNDLE_LOG_H
#define BUNDLE_LOG_H

#include <Poco/Exception.h>

#include <zq_log.h>

#include <exception>
#include <new>
#include <string>

namespace SystemServer {

/// The server's module code in the device's log, and the one under which two-language records are kept.
constexpr int LOG_MODULE = 4;
constexpr int LANGUAGE_LOG_MODULE = 5;

/// The levels of the device's log that the server uses.
constexpr int LOG_LEVEL_INFO = 1;
constexpr int LOG_LEVEL_ERROR = 3;

/// An exception as the reason in a record. Throws nothing: it is called after a failure, which may have been an
/// allocation.
inline std::string ReasonOf(const std::exception& e) noexcept
{
    try {
        const auto* const pocoException = dynamic_cast<const Poco::Exception*>(&e);
        return pocoException != nullptr ? pocoException->displayText() : e.what();
    } catch (const std::bad_alloc&) {
        return "out of memory"; // so short that it needs none
    }
}

} // namespace SystemServer

/// Writes one record. Any thread; takes no lock and no heap of ours, so it may be used between fork and exec.
#define BUNDLE_LOG(level, ...) ZQ_WriteLog(SystemServer::LOG_MODULE, (level), 0, 0, __FILE__, __LINE__, __VA_ARGS__)
#define BUNDLE_INFO(...) BUNDLE_LOG(SystemServer::LOG_LEVEL_INFO, __VA_ARGS__)
#define BUNDLE_ERROR(...) BUNDLE_LOG(SystemServer::LOG_LEVEL_ERROR, __VA_ARGS__)

namespace SystemServer {

/// Logs the cause of a failed step. The step's own error record follows and names only the object. Throws nothing.
inline void LogReason(const std::exception& e) noexcept
{
    BUNDLE_INFO("exception info: [%s].", ReasonOf(e).c_str());
}

} // namespace SystemServer

#endif
