#include "item_launch.h"

#include "bundle_log.h"
#include "inherited_state.h"

#include <Poco/Exception.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace SystemServer {

namespace {

constexpr char READY_CHAR = 'o';
constexpr int EXEC_FAILED_STATUS = 1;

// The pause between attempts on the pipe. It is short enough for a temporary failure, and long enough that the records
// of a permanent one do not fill the disk.
void PauseAfterFailure()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

// In the child. Waits without a time limit, but not for a server that has ended: it would never send the byte.
void AwaitReady(int readEnd, pid_t server)
{
    BUNDLE_INFO("wait for parent process ready...");
    char readyChar = 0;
    while (readyChar != READY_CHAR) {
        if (read(readEnd, &readyChar, 1) != 1) {
            readyChar = 0;
            BUNDLE_ERROR("read pipe fail.");
            if (getppid() != server) {
                _exit(EXEC_FAILED_STATUS);
            }
            PauseAfterFailure();
        } else if (readyChar != READY_CHAR) {
            BUNDLE_ERROR("read readyChar fail.required[o] actual[%c].", readyChar);
        }
    }
    BUNDLE_INFO("wait for parent process ready done pgid is [%d].", getpgrp());
}

// In the child. Returns, with errno set, only when the program cannot be executed. The signal's disposition is the
// item's for the exec alone: a record that the limit on file sizes refuses would kill the child.
template <class... Arguments> void Exec(const char* path, Arguments... arguments)
{
    RestoreFileSizeSignal();
    execl(path, arguments..., nullptr);
    IgnoreFileSizeSignal();
}

// In the child. Returns only when the item cannot be executed.
void ExecItem(const ItemCommand& command)
{
    const char* const execPath = command.execPath.c_str();
    const char* const itemName = command.itemName.c_str();
    const char* const entryFunc = command.entryFunc.c_str();
    const char* const loaderPath = command.loaderPath.c_str();
    const char* const loader = command.loaderName.c_str();
    switch (command.kind) {
    case ItemKind::LIBRARY:
        BUNDLE_INFO("load dyn lib[%s].excute command:{%s -f %s -e %s}", loaderPath, loader, execPath, entryFunc);
        Exec(loaderPath, loader, "-f", execPath, "-e", entryFunc);
        break;
    case ItemKind::SCRIPT:
        BUNDLE_INFO("execute shell script[%s].excute command:{sh %s}", execPath, execPath);
        Exec("/bin/sh", "sh", execPath);
        break;
    case ItemKind::BINARY:
        BUNDLE_INFO("execute binary[%s].excute command:{%s}", execPath, itemName);
        Exec(execPath, itemName);
        break;
    case ItemKind::TOO_SHORT:
        std::abort(); // the name is too short for an ending: the monitor sees an abnormal end
    }
}

} // namespace

ItemLaunch::ItemLaunch(const ItemCommand& command) : m_command(command)
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1) {
        throw Poco::InvalidArgumentException("process[" + command.processName + "] pipe fail.");
    }
    m_readEnd.Reset(ends[0]);
    m_writeEnd.Reset(ends[1]);
}

pid_t ItemLaunch::Fork()
{
    const pid_t server = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        BecomeItem(server);
    }
    if (pid == -1) {
        throw Poco::InvalidArgumentException("process[" + m_command.processName + "] fork fail.");
    }
    return pid;
}

// The child's whole life between fork and exec. It never returns into the copy of the server around it.
void ItemLaunch::BecomeItem(pid_t server)
{
    m_writeEnd.Reset();
    AwaitReady(m_readEnd.Get(), server);
    m_readEnd.Reset();
    RestoreDescriptorLimit();
    ExecItem(m_command);
    BUNDLE_ERROR("execl fail.errno[%d].", errno);
    _exit(EXEC_FAILED_STATUS);
}

// The read end is still open here too, so a write to a dead child succeeds. Otherwise SIGPIPE would end the server.
void ItemLaunch::Release(pid_t pid)
{
    BUNDLE_INFO("parent process ready.notify child process[%d]...", pid);
    while (write(m_writeEnd.Get(), &READY_CHAR, 1) != 1) {
        BUNDLE_ERROR("write pipe fail.");
        PauseAfterFailure();
    }
    BUNDLE_INFO("notify child process[%d] done.", pid);
    m_writeEnd.Reset();
    m_readEnd.Reset();
}

} // namespace SystemServer
