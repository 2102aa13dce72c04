// Both calls are made between fork and exec too, and by several processes on one file. So they take no lock and no
// heap, keep nothing that a fork would make wrong, and write a record with one call. They do not wait long for a
// reader: a log that cannot be written loses its records, and says how many when it can be written again.
#include <zq_log.h>

#include "log_destination.h"
#include "log_format.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

using HostPlatform::FormatRecord;
using HostPlatform::LogDestination;
using HostPlatform::LogHealth;
using HostPlatform::Prefix;
using HostPlatform::RECORD_SIZE;
using HostPlatform::RecordHead;

constexpr int LOG_MODULE = 4;
constexpr int LOG_ERROR = 3;

/// The same for the process's whole life.
std::atomic<LogDestination> g_destination{LogDestination()};
static_assert(decltype(g_destination)::is_always_lock_free, "a record may be written where a lock is held forever");

LogHealth g_ownHealth;
std::atomic<LogHealth*> g_health{&g_ownHealth};

struct ThreadNumber {
    int process;
    int thread;
};
thread_local ThreadNumber g_lastNumber{0, 0};

/// The calling thread's number. The kernel is asked for it once in each process, because a call costs a good part of a
/// record. The process id is asked for each time: it shows that there was a fork in between.
int ThreadOf(int process)
{
    if (g_lastNumber.process != process) {
        g_lastNumber = {process, static_cast<int>(::syscall(SYS_gettid))};
    }
    return g_lastNumber.thread;
}

RecordHead HeadOf(int module, int level, int flag, const char* file, int line)
{
    const int process = ::getpid();
    RecordHead head{{}, module, level, flag, process, ThreadOf(process), file, line};
    ::clock_gettime(CLOCK_REALTIME, &head.time);
    return head;
}

bool WriteRecord(const RecordHead& head, const char* format, va_list arguments) __attribute__((format(printf, 2, 0)));

/// Writes to the destination, which has been decided. False when the record is lost.
bool WriteRecord(const RecordHead& head, const char* format, va_list arguments)
{
    const LogDestination destination = g_destination.load(std::memory_order_acquire);
    const Prefix prefix = destination.GetKind() == LogDestination::JOURNAL ? Prefix::PRIORITY : Prefix::NONE;
    char record[RECORD_SIZE];
    const std::size_t length = FormatRecord(record, prefix, head, format, arguments);
    return WriteToLog(destination, *g_health.load(std::memory_order_acquire), record, length);
}

/// A record of the log's own.
__attribute__((format(printf, 1, 2))) bool WriteOwnRecord(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const bool written = WriteRecord(HeadOf(LOG_MODULE, LOG_ERROR, 0, __FILE__, __LINE__), format, arguments);
    va_end(arguments);
    return written;
}

/// Makes this the destination, unless another thread was first. False when it was.
bool Decide(LogDestination destination)
{
    LogDestination undecided;
    if (!g_destination.compare_exchange_strong(undecided, destination)) {
        destination.Close();
        return false;
    }
    if (LogHealth* shared = HostPlatform::NewSharedHealth()) {
        g_health.store(shared, std::memory_order_release);
    }
    return true;
}

void DecideDestination()
{
    const char* path = std::getenv("ZQ_LOG_FILE");
    if (path == nullptr || *path == '\0') {
        Decide(LogDestination::StandardError());
        return;
    }
    const LogDestination file = LogDestination::Open(path);
    // As a number, because strerror may take a lock.
    const int error = errno;
    if (file.IsDecided()) {
        Decide(file);
    } else if (Decide(LogDestination::StandardError())) {
        WriteOwnRecord("ZQ_LOG_FILE[%s] cannot be opened for writing, errno %d: the log goes to standard error.", path,
                       error);
    }
}

/// Logs how many records are lost. False when that record cannot be written either.
bool TellOfLoss(LogHealth& health)
{
    const unsigned lost = health.lost.exchange(0);
    if (lost == 0 || WriteOwnRecord("%u earlier records are lost: no room for them, or nobody has read them.", lost)) {
        return true;
    }
    health.lost += lost;
    return false;
}

__attribute__((format(printf, 2, 0))) void Log(const RecordHead& head, const char* format, va_list arguments)
{
    const int error = errno;
    if (!g_destination.load(std::memory_order_acquire).IsDecided()) {
        DecideDestination();
    }
    LogHealth& health = *g_health.load(std::memory_order_acquire);
    const bool isTold = health.lost.load(std::memory_order_relaxed) == 0 || TellOfLoss(health);
    if (!isTold || !WriteRecord(head, format, arguments)) {
        ++health.lost;
    }
    errno = error;
}

bool SecondLanguageIsChosen()
{
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0') {
            return std::strncmp(value, "zh", 2) == 0;
        }
    }
    return false;
}

} // namespace

void ZQ_WriteLog(int module, int level, int flag, int /*reserved*/, const char* file, int line, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Log(HeadOf(module, level, flag, file, line), format, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
void ZQ_WriteLanguageLog(int module, int level, const char* format, const char* second_format, ...)
{
    va_list arguments;
    va_start(arguments, second_format);
    Log(HeadOf(module, level, 0, nullptr, 0), SecondLanguageIsChosen() ? second_format : format, arguments);
    va_end(arguments);
}
