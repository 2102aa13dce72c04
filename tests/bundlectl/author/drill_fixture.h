#ifndef TESTS_BUNDLECTL_AUTHOR_DRILL_FIXTURE_H
#define TESTS_BUNDLECTL_AUTHOR_DRILL_FIXTURE_H

#include "bundlectl/author/trial_test.h"
#include "support/eventually.h"
#include "support/process_info.h"
#include "support/scale.h"
#include "support/shell.h"

#include <chrono>
#include <string>
#include <vector>

/// Bundles that are drilled.
class Drilling : public TrialTest {
public:
    Ended Drill(const std::string& bundle, std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"drill", bundles / bundle});
        Program program(Words(arguments));
        int status = 0;
        EXPECT_TRUE(Eventually(Scaled(std::chrono::seconds(50), std::chrono::seconds(900)), [&] {
            return !ProcessOf::IsAlive(program.Pid());
        })) << program.Output();
        status = program.Wait();
        return {status, program.Output(), program.Errors()};
    }

    /// The behaviour of an item on its first run, and on all others.
    std::string Runs(const std::string& first, const std::string& others) const
    {
        const std::string note = notes / "ran";
        return "if [ ! -e " + note + " ]; then : > " + note + "\n" + first + "\nelse :\n" + others + "\nfi\n" + Sleep();
    }

    /// The script that makes its directory before the first item starts.
    static std::string MakesData() { return Shell("mkdir -p \"${0%/script/*}/data\""); }
};

#endif
