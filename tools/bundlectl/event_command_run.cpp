#include "event_command_run.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace {

/// Starts it. Returns its number, or a negative errno.
int Start(const std::string& command)
{
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    std::string shell = "sh";
    std::string option = "-c";
    std::string text = command;
    char* const words[] = {shell.data(), option.data(), text.data(), nullptr};
    pid_t child = 0;
    const int error = ::posix_spawn(&child, "/bin/sh", nullptr, &attributes, words, environ);
    ::posix_spawnattr_destroy(&attributes);
    return error == 0 ? child : -error;
}

} // namespace

void RunForEvent(const std::string& command, const std::string& publisher, const std::string& event)
{
    ::setenv("BUNDLE_EVENT_PUBLISHER", publisher.c_str(), 1);
    ::setenv("BUNDLE_EVENT", event.c_str(), 1);
    const int child = Start(command);
    if (child < 0) {
        std::cerr << "bundlectl: /bin/sh cannot be run: " << std::strerror(-child) << ".\n";
        return;
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        std::cerr << "bundlectl: the command ended with the status " << WEXITSTATUS(status) << ".\n";
    } else if (WIFSIGNALED(status)) {
        std::cerr << "bundlectl: the signal " << WTERMSIG(status) << " has ended the command.\n";
    }
}
