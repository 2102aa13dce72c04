#ifndef BUNDLECTL_VERBS_H
#define BUNDLECTL_VERBS_H

#include "arguments.h"

#include <cstddef>
#include <functional>
#include <string_view>

/// The program that has a verb's code. Users call bundlectl, which executes that program with the same command line.
enum class Program {
    BUNDLECTL,
    ANALYSIS, ///< draws and writes pages from a log, which may come from another machine
    PUT,      ///< changes a collection; needs libraries that the server does not need
    AUTHOR,   ///< for authors of bundles, on their own machines
};

struct ProgramPlace {
    Program program;
    const char* file;   ///< in the directory of the server's helpers
    const char* advice; ///< what to do when it is not installed
};

/// One entry for each Program.
constexpr ProgramPlace PROGRAMS[] = {
    {Program::BUNDLECTL, "bundlectl", "install the package bundlectl"},
    {Program::ANALYSIS, "bundlectl-analysis",
     "fetch the log, and read it with the package bundlectl of another machine and --log FILE"},
    {Program::PUT, "bundlectl-put", "install the package bundlectl"},
    {Program::AUTHOR, "bundlectl-author", "install the package bundlectl-author"},
};

/// The description of a verb for users.
struct Verb {
    const char* name;
    Program program;
    const char* description;
    const char* examples; ///< for the end of its help, one line each
};

/// All verbs, in the order in which they are listed. The command line, the help, the completions and, by a test, the
/// manual page follow this table.
constexpr Verb VERBS[] = {
    {"status", Program::BUNDLECTL, "Show what runs, and what does not",
     "bundlectl status\nbundlectl status media\nbundlectl status --watch"},
    {"why", Program::BUNDLECTL, "Tell why a bundle runs, or why it does not",
     "bundlectl why media\nbundlectl why media --evidence"},
    {"log", Program::BUNDLECTL, "Show the server's log, or what it has of one bundle",
     "bundlectl log -f\nbundlectl log media --since 10m --level error"},
    {"timeline", Program::ANALYSIS, "Show a start-up, or a later window, as a picture",
     "bundlectl timeline\nbundlectl timeline --from 10m --format svg > timeline.svg\n"
     "bundlectl timeline compare before.log after.log"},
    {"blame", Program::ANALYSIS, "List the bundles by the time that they cost the start-up",
     "bundlectl blame\nbundlectl blame --log device.log"},
    {"delete", Program::BUNDLECTL, "Delete a bundle: stop it, unload it and remove its directory",
     "bundlectl delete media --timeout 5m\nbundlectl delete media radio --force --wait"},
    {"events", Program::BUNDLECTL, "Listen on the event service and print a line for each event",
     "bundlectl events --count 1\nbundlectl events --exec 'logger \"$BUNDLE_EVENT\"'"},
    {"wait", Program::BUNDLECTL, "Wait until the server answers requests, or bundles are active or gone",
     "bundlectl wait --for serving --timeout 5m\nbundlectl wait media --for active"},
    {"orphans", Program::BUNDLECTL, "List the processes that a former server has left, or end them",
     "bundlectl orphans\nbundlectl orphans --end --grace 10s"},
    {"doctor", Program::BUNDLECTL, "Look for what is wrong with the installation, and say what mends it",
     "bundlectl doctor\nbundlectl doctor --json"},
    {"metrics", Program::BUNDLECTL, "Print the same facts as numbers, for a monitoring system",
     "bundlectl metrics\nbundlectl metrics --textfile /var/lib/prometheus/node-exporter/bundles.prom"},
    {"record", Program::BUNDLECTL, "Write down each launch, so that its process can be told later",
     "bundlectl record\nbundlectl record --once --json"},
    {"report", Program::ANALYSIS, "Write all of it into one HTML page, to attach to a ticket",
     "bundlectl report -o report.html"},
    {"put", Program::PUT, "Install or update a bundle in one step, and go back when it does not run",
     "bundlectl put radio-2.tar.gz --key vendor.pub\nbundlectl put build/radio --soak 30s"},
    {"rollback", Program::PUT, "Bring a former version of a bundle back",
     "bundlectl rollback radio\nbundlectl rollback radio --to 3"},
    {"versions", Program::PUT, "List the versions of a bundle that are kept", "bundlectl versions radio"},
    {"verify", Program::PUT, "Tell where a bundle or an archive differs from what was shipped",
     "bundlectl verify radio-2.tar.gz --key vendor.pub\nbundlectl verify /data/bundles/radio"},
    {"remove", Program::PUT, "Remove a bundle: by request when a server runs, else from the directory",
     "bundlectl remove radio"},
    {"new", Program::AUTHOR, "Make the project of a new bundle, which builds and passes its test as it comes",
     "bundlectl new radio\nbundlectl new radio --lang sh --requires base,net\nbundlectl new meter --mode thread"},
    {"lint", Program::AUTHOR, "Tell what is wrong with bundles, before the server does",
     "bundlectl lint radio\nbundlectl lint --strict bundles\nbundlectl lint --arch armhf --sysroot /srv/image radio"},
    {"plan", Program::AUTHOR, "Tell what the server will do with a collection, in order",
     "bundlectl plan bundles\nbundlectl plan bundles --after add radio\nbundlectl plan bundles --after delete media"},
    {"graph", Program::AUTHOR, "Show which bundles require which, and in which order they start",
     "bundlectl graph bundles\nbundlectl graph bundles --reverse base\nbundlectl graph bundles --format=svg > "
     "bundles.svg"},
    {"try", Program::AUTHOR, "Run bundles under the real server, apart from this machine's",
     "bundlectl try radio\nbundlectl try radio media\nbundlectl try radio --for 10s --expect active"},
    {"drill", Program::AUTHOR, "Do harm to a bundle that runs, and tell whether it comes back as promised",
     "bundlectl drill radio\nbundlectl drill radio --only signal:SEGV status exchange\n"
     "bundlectl drill radio --junit drill.xml"},
    {"pack", Program::AUTHOR, "Pack a bundle into an archive that put takes, and sign it",
     "bundlectl pack radio -o radio-2.tar.gz\nbundlectl pack radio -o radio-2.tar.gz --key vendor.key"},
    {"keygen", Program::AUTHOR, "Make a pair of keys, for signing and for checking signatures",
     "bundlectl keygen vendor"},
};

/// Executes a verb after its arguments are read. Returns the exit status.
using Action = std::function<int()>;

/// Adds a verb's arguments. Returns the verb's action.
using Definition = Action (*)(Arguments& arguments);

/// A verb whose code is in this program.
struct Command {
    std::string_view name;
    Definition define;
};

/// The verbs of one program. The array must outlive this object.
struct Commands {
    Program program;
    const Command* first;
    std::size_t count;

    const Command* begin() const { return first; }
    const Command* end() const { return first + count; }
    /// Null when this program does not have the verb.
    Definition Find(std::string_view name) const;
};

/// Whether a program defines the verbs that the table gives it, in the table's order, and no others.
template <std::size_t COUNT> constexpr bool DefinesItsVerbs(Program program, const Command (&commands)[COUNT])
{
    std::size_t number = 0;
    for (const Verb& verb : VERBS) {
        if (verb.program == program && (number == COUNT || commands[number++].name != verb.name)) {
            return false;
        }
    }
    return number == COUNT;
}

/// The verb of that name; null when there is none.
const Verb* FindVerb(std::string_view name);

#endif
