#include "arguments.h"
#include "bundle_wait.h"
#include "command.h"
#include "exit_status.h"
#include "output/json_writer.h"
#include "printable.h"
#include "request_service.h"
#include "timeout_option.h"
#include "verbs/places.h"

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

/// How long a connection to a server may wait before the process to wait for is checked again.
constexpr int LONGEST_LOOK = 1000;

struct Options {
    std::string condition;
    std::chrono::seconds timeout{30};
    long server = 0; ///< 0: any server that serves
    bool json = false;
    BundleCondition bundles;
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

/// The service's socket is bound only after all bundles have been started.
int WaitForServing(const Options& options)
{
    constexpr std::chrono::milliseconds interval(100);
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
    return condition == "serving" || BundleCondition().WaitsFor(condition)
               ? ""
               : "\"" + condition + "\" is no condition; there are serving, active, gone and item:NAME";
}

int Wait(Options& options)
{
    const bool isForBundles = options.bundles.WaitsFor(options.condition);
    if (isForBundles == options.bundles.names.empty()) {
        return Failed(EXIT_USAGE, isForBundles ? "--for " + options.condition + " needs the names of bundles."
                                               : "--for serving takes no names.");
    }
    options.bundles.timeout = options.timeout;
    const int status = isForBundles ? WaitForBundles(options.bundles) : WaitForServing(options);
    if (!options.json) {
        return status;
    }
    Output::JsonWriter json;
    json.BeginOutput("wait", Model::Now()).Member("for", options.condition).Key("bundles").BeginArray();
    for (const std::string& name : options.bundles.names) {
        json.Value(Printable(name));
    }
    json.End().Member("met", status == EXIT_DONE).Member("exit_status", status).End();
    return Verbs::Print(json.Text(), status);
}

} // namespace

Action DefineWait(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.Add({"NAME", "the names of bundles, as in their manifests"}, options->bundles.names);
    Argument condition{"--for", "serving, active, gone, or item:NAME for an item that is up", "CONDITION",
                       FaultOfCondition};
    condition.isRequired = true;
    condition.choices = "serving active gone item:";
    arguments.Add(condition, options->condition);
    AddTimeout(arguments, "how long to wait", options->timeout);
    arguments.Add({"--pid", "wait for this server, and no longer than it runs", "PID"}, options->server, 1,
                  std::numeric_limits<pid_t>::max());
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->bundles.choice);
    return [options] { return Wait(*options); };
}
