#ifndef TESTS_SUPPORT_PROGRAM_H
#define TESTS_SUPPORT_PROGRAM_H

#include "support/temporary_directory.h"

#include <sys/types.h>

#include <string>
#include <vector>

/// A program that runs beside the test. Its outputs are kept in files.
class Program {
public:
    /// Starts it. @param arguments the program's path first
    explicit Program(const std::vector<std::string>& arguments);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    /// Kills it if it still runs.
    ~Program();

    /// Waits for its end. Returns the exit status, or the negative signal; -1000 when it does not end within seconds.
    int Wait();

    pid_t Pid() const { return m_pid; }
    void Signal(int number) const;

    std::string Output() const;
    std::string Errors() const;

private:
    TemporaryDirectory m_directory;
    pid_t m_pid;
};

/// How a program has ended, and what it wrote.
struct Ended {
    int status;
    std::string output;
    std::string errors;
};

/// Runs it to its end. @param program its path
Ended RunToEnd(const std::string& program, std::vector<std::string> arguments);

bool Has(const std::string& text, const std::string& part);

#endif
