#include "trial_options.h"

#include "arguments.h"
#include "exit_status.h"
#include "model/log_time.h"
#include "private_run.h"
#include "trial_bundles.h"

#include <iostream>

namespace Trials {

namespace {

constexpr std::chrono::hours LONGEST{24};

std::string FaultOfSpan(const std::string& text)
{
    const auto span = Model::ParseSpan(text);
    return span && *span >= std::chrono::milliseconds(1) && *span <= LONGEST
               ? ""
               : "\"" + text + "\" is no time up to 24h, such as 10s or 2m";
}

int Refuse(int status, const std::string& text)
{
    std::cerr << "bundlectl: " << text << '\n';
    return status;
}

} // namespace

void AddTrialOptions(Arguments& arguments, TrialOptions& options, bool takesSeveral)
{
    Argument directory{"DIR", takesSeveral ? "the bundles' directories" : "the bundle's directory", "DIR"};
    directory.isRequired = true;
    if (takesSeveral) {
        arguments.Add(directory, options.directories);
    } else {
        arguments.Add(directory, [&options](const std::string& value) { options.directories.assign(1, value); });
    }
    arguments.Add({"--server", "the server's program, where it is not beside this one or in PATH", "FILE"},
                  options.server);
    arguments.Add({"--loader", "the directory of dyn_lib_process_loader, where it is not beside the server", "DIR"},
                  options.loader);
}

void AddSpanOption(Arguments& arguments, const char* name, const char* description,
                   std::optional<std::chrono::milliseconds>& span)
{
    arguments.Add({name, description, "TIME", FaultOfSpan}, [&span](const std::string& text) {
        const auto value = Model::ParseSpan(text);
        if (value) {
            span = std::chrono::duration_cast<std::chrono::milliseconds>(*value);
        }
    });
}

int RunTrial(const TrialOptions& options, const std::function<int(const ServerPrograms&)>& action)
{
    for (const std::string& directory : options.directories) {
        const std::string fault = FaultOfBundle(directory);
        if (!fault.empty()) {
            return Refuse(EXIT_USAGE, fault);
        }
    }
    const ServerPrograms programs = FindServerPrograms(options.server, options.loader);
    if (programs.server.empty()) {
        return Refuse(EXIT_UNREACHABLE, programs.advice);
    }
    try {
        return RunPrivately([&] { return action(programs); });
    } catch (const NotPermitted& exception) {
        return Refuse(EXIT_UNREACHABLE, exception.what());
    }
}

} // namespace Trials
