// Both calls are made between fork and exec too, and by several processes on one file: no lock and no heap, nothing
// kept that a fork would make wrong, and one write per record. Nor is anybody waited for who may never come: a log that
// cannot be written costs its records, and says how many when it can.
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
using HostPlatform::LogTrouble;
using HostPlatform::Prefix;
using HostPlatform::RECORD_SIZE;
using HostPlatform::RecordHead;

constexpr int LOG_MODULE = 4;
constexpr int LOG_ERROR = 3;

/// The same for the process's whole life.
std::atomic<LogDestination> g_destination{LogDestination()};
static_assert(decltype(g_destination)::is_always_lock_free, "a record may be written where a lock is held for ever");

LogTrouble g_ownTrouble;
std::atomic<LogTrouble*> g_trouble{&g_ownTrouble};

struct ThreadNumber {
    int process;
    int thread;
};
thread_local ThreadNumber g_lastNumber{0, 0};

/// The calling thread's number. Asked for once in each process: a question to the kernel is a good part of a record's
/// cost, and that for the process cannot be saved, for it is what shows that a fork has come between.
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
    const Prefix prefix = destination.WhatItIs() == LogDestination::JOURNAL ? Prefix::PRIORITY : Prefix::NONE;
    char record[RECORD_SIZE];
    const std::size_t length = FormatRecord(record, prefix, head, format, arguments);
    return WriteToLog(destination, *g_trouble.load(std::memory_order_acquire), record, length);
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

/// Makes it the destination, unless another thread was first. True when it was made.
bool Decide(LogDestination destination)
{
    LogDestination undecided;
    if (!g_destination.compare_exchange_strong(undecided, destination)) {
        destination.Close();
        return false;
    }
    if (LogTrouble* shared = HostPlatform::NewSharedTrouble()) {
        g_trouble.store(shared, std::memory_order_release);
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
    // A number, for strerror may take a lock.
    const int error = errno;
    if (file.IsDecided()) {
        Decide(file);
    } else if (Decide(LogDestination::StandardError())) {
        WriteOwnRecord("ZQ_LOG_FILE[%s] cannot be opened for writing, errno %d: the log goes to standard error.", path,
                       error);
    }
}

/// True when nothing is lost that the log does not tell of.
bool TellOfLoss(LogTrouble& trouble)
{
    const unsigned lost = trouble.lost.exchange(0);
    if (lost == 0 || WriteOwnRecord("%u earlier records are lost: no room for them, or nobody has read them.", lost)) {
        return true;
    }
    trouble.lost += lost;
    return false;
}

__attribute__((format(printf, 2, 0))) void Log(const RecordHead& head, const char* format, va_list arguments)
{
    const int error = errno;
    if (!g_destination.load(std::memory_order_acquire).IsDecided()) {
        DecideDestination();
    }
    LogTrouble& trouble = *g_trouble.load(std::memory_order_acquire);
    const bool isTold = trouble.lost.load(std::memory_order_relaxed) == 0 || TellOfLoss(trouble);
    if (!isTold || !WriteRecord(head, format, arguments)) {
        ++trouble.lost;
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
