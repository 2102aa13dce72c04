#ifndef TESTS_SYSTEM_HOSTILE_SERVICE_HOSTILE_SERVICE_H
#define TESTS_SYSTEM_HOSTILE_SERVICE_HOSTILE_SERVICE_H

#include "system/system_test.h"

#include <sys/resource.h>

#include <functional>
#include <map>
#include <string>

/// A daemon with one bundle, "radio", whose item runs. No attack may change its resources.
class HostileService : public SystemTest {
public:
    /// The name of a bundle that does not exist. A request for it is well-formed and changes nothing.
    static constexpr const char NO_BUNDLE[] = "not-there";

    /// Writes the bundle, starts the daemon and waits until it serves.
    void StartServing();

    /// Attacks once, so that everything that is made only once exists, and then that many times more. The server must
    /// serve after each attack. In the end its memory, descriptors and threads must be as after the first attack.
    /// @param kilobytes how far the memory may differ
    void Withstands(int rounds, const std::function<void()>& attack, long kilobytes = 256);

    /// Sends one good request on a connection of its own and checks the reply.
    void ExpectGoodService();

    /// Whether the daemon soon uses almost no processor time.
    bool ComesToRest();

    /// Waits until the server has closed all connections, and compares its descriptors.
    void ExpectDescriptors(const std::map<int, std::string>& expected);

    /// Its resident memory in kB, without its libraries.
    long PrivateKilobytes();

    /// Deletes the bundle, as the last good request.
    void ExpectRadioIsDeleted();

    /// The pid of the bundle's item.
    pid_t Radio() { return daemon.WaitForItem("radio", "radiod"); }

    /// Changes the descriptor limit of the running daemon.
    void LimitDescriptors(rlim_t limit);

    /// The number of new log lines that are not sound records. Empties the log afterwards, as a rotation does.
    int UnsoundLinesOfRotatedLog();
};

/// Whether a line of the log has all columns, no control character, and no more than its 4 KiB.
bool IsSoundRecord(const std::string& line);

/// Raises the descriptor limit of this process as far as the system allows.
void AllowAllDescriptors();

/// Prints a measurement, in the long form only.
void Report(const std::string& what, const std::string& figure);

#endif
