#ifndef PLATFORM_HOST_LOG_HOST_LOG_H
#define PLATFORM_HOST_LOG_HOST_LOG_H

#include <zq_log.h>

/// The platform's own records, of module 4. As ZQ_WriteLog: any thread, also between fork and exec, printf-checked,
/// errno unchanged. The text has no line end.
#define HOST_LOG_INFO(...) ZQ_WriteLog(4, 1, 0, 0, __FILE__, __LINE__, __VA_ARGS__)
#define HOST_LOG_ERROR(...) ZQ_WriteLog(4, 3, 0, 0, __FILE__, __LINE__, __VA_ARGS__)

#endif
