// Both calls are made between fork and exec too, and by several processes on one file: no lock and no heap, nothing
// kept that a fork would make wrong, and one write per record.
#include <zq_log.h>

#include "log_format.h"

#include <fcntl.h>
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
using HostPlatform::RECORD_SIZE;
using HostPlatform::RecordHead;

constexpr int LOG_MODULE = 4;
constexpr int LOG_ERROR = 3;

constexpr int UNDECIDED = -1;

/// The descriptor that records go to, the same for the process's whole life.
std::atomic<int> g_destination{UNDECIDED};
static_assert(std::atomic<int>::is_always_lock_free, "a record may be written where a lock is held for ever");

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

void WriteOnce(int fd, const char* record, std::size_t length)
{
    // There is nobody to tell of a record that cannot be written; what a full disk cut off is not sent after, for
    // another process's record may stand between.
    while (::write(fd, record, length) < 0 && errno == EINTR) {
    }
}

__attribute__((format(printf, 3, 4))) void WriteTo(int fd, const RecordHead& head, const char* format, ...)
{
    char record[RECORD_SIZE];
    va_list arguments;
    va_start(arguments, format);
    const std::size_t length = FormatRecord(record, head, format, arguments);
    va_end(arguments);
    WriteOnce(fd, record, length);
}

/// Makes fd the destination, unless another thread was first. True when it was made.
bool Decide(int fd)
{
    int undecided = UNDECIDED;
    return g_destination.compare_exchange_strong(undecided, fd);
}

void DecideDestination()
{
    const char* path = std::getenv("ZQ_LOG_FILE");
    if (path == nullptr || *path == '\0') {
        Decide(STDERR_FILENO);
        return;
    }
    const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
    if (fd >= 0) {
        if (!Decide(fd)) {
            ::close(fd);
        }
        return;
    }
    // A number, for strerror may take a lock.
    const int error = errno;
    if (Decide(STDERR_FILENO)) {
        WriteTo(STDERR_FILENO, HeadOf(LOG_MODULE, LOG_ERROR, 0, __FILE__, __LINE__),
                "ZQ_LOG_FILE[%s] cannot be opened for writing, errno %d: the log goes to standard error.", path, error);
    }
}

int Destination()
{
    if (g_destination.load(std::memory_order_acquire) == UNDECIDED) {
        DecideDestination();
    }
    return g_destination.load(std::memory_order_acquire);
}

__attribute__((format(printf, 2, 0))) void WriteRecord(const RecordHead& head, const char* format, va_list arguments)
{
    const int error = errno;
    char record[RECORD_SIZE];
    const std::size_t length = FormatRecord(record, head, format, arguments);
    WriteOnce(Destination(), record, length);
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
    WriteRecord(HeadOf(module, level, flag, file, line), format, arguments);
    va_end(arguments);
}

// NOLINTNEXTLINE(readability-identifier-naming): the header's own name
void ZQ_WriteLanguageLog(int module, int level, const char* format, const char* second_format, ...)
{
    va_list arguments;
    va_start(arguments, second_format);
    WriteRecord(HeadOf(module, level, 0, nullptr, 0), SecondLanguageIsChosen() ? second_format : format, arguments);
    va_end(arguments);
}
