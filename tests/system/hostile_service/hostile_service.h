#ifndef TESTS_SYSTEM_HOSTILE_SERVICE_HOSTILE_SERVICE_H
#define TESTS_SYSTEM_HOSTILE_SERVICE_HOSTILE_SERVICE_H

#include "system/system_test.h"

#include <sys/resource.h>

#include <functional>
#include <map>
#include <string>

/// A daemon with one bundle, "radio", whose item runs; what is done to it must leave it as it was.
class HostileService : public SystemTest {
public:
    /// A bundle that no test has: to ask for it is a good request that changes nothing.
    static constexpr const char NO_BUNDLE[] = "not-there";

    /// Writes the bundle and has the daemon serve.
    void StartServing();

    /// Attacks once, so that what is made once is made, and then so many times more. The server serves after each; in
    /// the end its memory, descriptors and threads are where they were after the first, and it is at rest.
    /// @param kilobytes by which the memory may differ
    void Withstands(int rounds, const std::function<void()>& attack, long kilobytes = 256);

    /// Asks one good question on a connection of its own and checks the answer.
    void ExpectGoodService();

    /// Whether the daemon comes to use next to no processor time.
    bool ComesToRest();

    /// Waits until the server has forgotten all connections, and compares.
    void ExpectDescriptors(const std::map<int, std::string>& expected);

    /// Its memory in kB: what it resides in, its libraries left out.
    long PrivateKilobytes();

    /// Deletes the bundle, as the last good request.
    void ExpectRadioIsDeleted();

    /// The item of the bundle.
    pid_t Radio() { return daemon.WaitForItem("radio", "radiod"); }

    /// The daemon's limit of descriptors, in the middle of its life.
    void LimitDescriptors(rlim_t limit);

    /// One pass over what has been added to the log: how many of its lines are no sound records. Afterwards the log is
    /// empty, as by one who rotates it.
    int UnsoundLinesOfRotatedLog();
};

/// Whether a line of the log has all columns, no control character, and no more than its 4 KiB.
bool IsSoundRecord(const std::string& line);

/// Lets this process have as many descriptors as it may.
void AllowAllDescriptors();

/// Prints what a long form has measured, for whoever writes it down.
void Report(const std::string& what, const std::string& figure);

#endif
