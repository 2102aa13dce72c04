#include "drill_exercises.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <iterator>

namespace Trials {

namespace {

// The signals that end a process unless it handles them.
constexpr int DEADLY[] = {SIGHUP,  SIGINT,  SIGQUIT,   SIGILL,  SIGTRAP, SIGABRT, SIGBUS,  SIGFPE,
                          SIGKILL, SIGUSR1, SIGSEGV,   SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGSTKFLT,
                          SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO,   SIGPWR,  SIGSYS};

constexpr int RUN_AGAIN[] = {2, 6, 7, 8, 10, 11, 15, 31, 255};
// A selection of the other statuses: success, failure, and their neighbours.
constexpr int RESTING[] = {0, 1, 3, 9, 254};

std::string GroupOf(const std::string& name)
{
    return name.substr(0, name.find(':'));
}

} // namespace

std::vector<Exercise> AllExercises()
{
    std::vector<Exercise> all{{Exercise::UNDISTURBED, "undisturbed"}};
    for (const int signal : DEADLY) {
        all.push_back({Exercise::SIGNAL, std::string("signal:") + ::sigabbrev_np(signal), signal});
    }
    for (const int status : RUN_AGAIN) {
        all.push_back({Exercise::STATUS, "status:" + std::to_string(status), status});
    }
    for (const int status : RESTING) {
        all.push_back({Exercise::STATUS, "status:" + std::to_string(status), status});
    }
    all.push_back({Exercise::SLOW_SCRIPT, "slow-script:update"});
    all.push_back({Exercise::SLOW_SCRIPT, "slow-script:install"});
    all.push_back({Exercise::LIBRARY, "library"});
    all.push_back({Exercise::EXCHANGE, "exchange"});
    all.push_back({Exercise::FULL_LOG, "full-log"});
    return all;
}

std::vector<Exercise> ChooseExercises(const std::vector<std::string>& names, std::vector<std::string>& unknown)
{
    const std::vector<Exercise> all = AllExercises();
    const auto fits = [](const std::string& name) {
        return [&name](const Exercise& exercise) { return exercise.name == name || GroupOf(exercise.name) == name; };
    };
    std::copy_if(names.begin(), names.end(), std::back_inserter(unknown),
                 [&](const std::string& name) { return std::none_of(all.begin(), all.end(), fits(name)); });
    std::vector<Exercise> chosen;
    std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), [&](const Exercise& exercise) {
        return names.empty() ||
               std::any_of(names.begin(), names.end(), [&](const std::string& name) { return fits(name)(exercise); });
    });
    return chosen;
}

std::string NamesOfExercises()
{
    std::string text;
    std::string last;
    for (const Exercise& exercise : AllExercises()) {
        const std::string group = GroupOf(exercise.name);
        text += group == last ? "" : (text.empty() ? "" : ", ") + group;
        last = group;
    }
    return text;
}

bool IsRunAgain(bool isSignal, int number)
{
    return isSignal || std::find(std::begin(RUN_AGAIN), std::end(RUN_AGAIN), number) != std::end(RUN_AGAIN);
}

} // namespace Trials
