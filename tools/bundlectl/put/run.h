#ifndef BUNDLECTL_PUT_RUN_H
#define BUNDLECTL_PUT_RUN_H

#include "exit_status.h"
#include "put/report.h"
#include "put/store.h"

#include <string>

namespace Put {

/// Runs a verb. Reports a Refusal, or a lock that another program holds for too long. Other exceptions leave it.
/// @param json the report as JSON on standard output, otherwise as a sentence
/// @return the verb's exit status, or EXIT_FAILED or EXIT_TIMED_OUT after a report
template <class Verb> int Guarded(const char* verb, const std::string& bundle, bool json, const Verb& run)
{
    Report report;
    report.verb = verb;
    report.bundle = bundle;
    try {
        return run();
    } catch (const StoreLock::TimedOut& refusal) {
        report.outcome = "busy";
        report.text = refusal.what();
        return Tell(report, EXIT_TIMED_OUT, json);
    } catch (const Refusal& refusal) {
        report.outcome = "refused";
        report.text = refusal.what();
        report.details = refusal.Details();
        return Tell(report, EXIT_FAILED, json);
    }
}

} // namespace Put

#endif
