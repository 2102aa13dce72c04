// The entry functions of a library item, one for each way in which such a function can behave.
#include <fcntl.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

extern "C" {

int ReturnZero()
{
    return 0;
}

/// A process that exits with this status is relaunched.
int ReturnTwo()
{
    return 2;
}

int ReturnThirtyThree()
{
    return 33;
}

int ThrowException()
{
    throw std::runtime_error("no tuner found");
}

int ThrowNumber()
{
    throw 7;
}

/// Can be cancelled. It waits on a condition because the thread sanitizer loses track of a thread's locks if the thread
/// is cancelled in most other calls.
int SleepForever()
{
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static pthread_cond_t never = PTHREAD_COND_INITIALIZER;
    ::pthread_mutex_lock(&mutex);
    pthread_cleanup_push([](void* locked) { ::pthread_mutex_unlock(static_cast<pthread_mutex_t*>(locked)); }, &mutex);
    for (;;) {
        ::pthread_cond_wait(&never, &mutex);
    }
    pthread_cleanup_pop(1);
}

/// Ignores a cancellation.
int SleepThroughCancellation()
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    for (;;) {
        ::pause();
    }
}

/// Ends the thread that it runs on.
int EndThread()
{
    ::pthread_exit(nullptr);
}

/// Leaves the process a dead child, which any thread can reap.
int LeaveDeadChild()
{
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::_exit(0);
    }
    return pid > 0 ? 0 : 1;
}

/// Starts a child that runs as long as the server.
int KeepChild()
{
    return std::system("while :; do sleep 1; done") == 0 ? 0 : 1;
}

/// Opens a file and never closes it.
int LeaveDescriptor()
{
    return ::open("/dev/null", O_RDONLY | O_CLOEXEC) < 0 ? 1 : 0;
}

/// Makes every later wait for a child fail in this process.
int IgnoreDeadChildren()
{
    return std::signal(SIGCHLD, SIG_IGN) == SIG_ERR ? 1 : 0;
}
}
