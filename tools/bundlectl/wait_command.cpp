#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "request_service.h"
#include "timeout_option.h"

#include <bundle_client.h>

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// How long a server may keep a connection waiting before the process to wait for is looked at again.
constexpr int LONGEST_LOOK = 1000;

struct Options {
    std::string condition;
    std::chrono::seconds timeout = 30s;
    long server = 0; ///< 0: whichever serves
};

int Failed(ExitStatus status, const std::string& text)
{
    std::cerr << "bundlectl: " << text << '\n';
    return status;
}

bool HasEnded(pid_t process)
{
    return ::kill(process, 0) == -1 && errno == ESRCH;
}

int TellWhoServes(const Options& options, pid_t server)
{
    if (options.server == 0 || options.server == server) {
        return EXIT_DONE;
    }
    return Failed(EXIT_UNREACHABLE, "process " + std::to_string(server) + " serves, and not process " +
                                        std::to_string(options.server) +
                                        ": two servers cannot serve on one machine. End one of them.");
}

/// The service's socket is bound when all bundles have been started, and not before.
int WaitForServing(const Options& options)
{
    constexpr auto interval = 100ms;
    const Clock::time_point end = Clock::now() + options.timeout;
    for (;;) {
        const bool hasEnded = options.server != 0 && HasEnded(static_cast<pid_t>(options.server));
        pid_t server = 0;
        const int code = bundle_client_server(std::min(MillisecondsUntil(end), LONGEST_LOOK), &server);
        if (code == BUNDLE_CLIENT_OK) {
            return TellWhoServes(options, server);
        }
        if (code == BUNDLE_CLIENT_UNREACHABLE && errno == EACCES) {
            return Failed(EXIT_UNREACHABLE, "no server can be reached at " + ServicePath() + " (" +
                                                std::strerror(EACCES) + "). Are you its user or root?");
        }
        if (hasEnded) {
            return Failed(EXIT_UNREACHABLE, "process " + std::to_string(options.server) +
                                                " has ended before it served. Its log, or what it wrote to standard "
                                                "error, says why.");
        }
        if (Clock::now() >= end) {
            return Failed(EXIT_TIMED_OUT, "no server serves within " + std::to_string(options.timeout.count()) +
                                              " s. It serves when all bundles have been started; its log says how "
                                              "far it is.");
        }
        std::this_thread::sleep_for(interval);
    }
}

std::string FaultOfCondition(const std::string& condition)
{
    return condition == "serving" ? "" : "\"" + condition + "\" is no condition; there is \"serving\"";
}

} // namespace

Action DefineWait(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument condition{"--for", "what to wait for: the server answers requests", "CONDITION", FaultOfCondition};
    condition.isRequired = true;
    condition.choices = "serving";
    arguments.Add(condition, options->condition);
    AddTimeout(arguments, "how long to wait", options->timeout);
    arguments.Add({"--pid", "wait for this server, and no longer than it runs", "PID"}, options->server, 1,
                  std::numeric_limits<pid_t>::max());
    return [options] { return WaitForServing(*options); };
}
