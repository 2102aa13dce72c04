#include "log_source.h"

#include <Poco/Exception.h>
#include <Poco/FileStream.h>
#include <Poco/InflatingStream.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

namespace Model {

namespace {

using Common::UniqueFd;

class EmptySource : public LogSource {
public:
    explicit EmptySource(std::string trouble) { Note(std::move(trouble)); }
    std::size_t Read(char* /*buffer*/, std::size_t /*size*/) override { return 0; }
};

class DescriptorSource : public LogSource {
public:
    DescriptorSource(UniqueFd fd, std::string name) : m_fd(std::move(fd)), m_name(std::move(name)) {}

    std::size_t Read(char* buffer, std::size_t size) override
    {
        ssize_t count = 0;
        do {
            count = m_fd.IsOpen() ? ::read(m_fd.Get(), buffer, size) : 0;
        } while (count < 0 && errno == EINTR);
        if (count < 0) {
            Note(m_name + " cannot be read: " + std::strerror(errno) + ".");
            m_fd.Reset();
            return 0;
        }
        return static_cast<std::size_t>(count);
    }

private:
    UniqueFd m_fd;
    const std::string m_name;
};

class GzipSource : public LogSource {
public:
    GzipSource(const std::string& path, std::uint64_t skipped)
        : m_path(path), m_file(path, std::ios::in | std::ios::binary),
          m_inflated(m_file, Poco::InflatingStreamBuf::STREAM_GZIP), m_skipped(skipped)
    {}

    std::size_t Read(char* buffer, std::size_t size) override
    {
        try {
            while (m_skipped > 0) {
                const std::size_t count = ReadOnce(buffer, std::min<std::uint64_t>(size, m_skipped));
                if (count == 0) {
                    return 0;
                }
                m_skipped -= count;
            }
            return ReadOnce(buffer, size);
        } catch (const Poco::Exception& e) {
            return Fail(e.displayText());
        }
    }

private:
    std::size_t ReadOnce(char* buffer, std::uint64_t size)
    {
        if (!m_inflated.good()) {
            return 0;
        }
        m_inflated.read(buffer, static_cast<std::streamsize>(size));
        if (m_inflated.bad()) {
            return Fail("its end is missing or damaged");
        }
        return static_cast<std::size_t>(m_inflated.gcount());
    }

    std::size_t Fail(const std::string& reason)
    {
        Note(m_path + " cannot be read to its end: " + reason + ".");
        m_inflated.setstate(std::ios::eofbit);
        return 0;
    }

    const std::string m_path;
    Poco::FileInputStream m_file;
    Poco::InflatingInputStream m_inflated;
    std::uint64_t m_skipped;
};

class Chain : public LogSource {
public:
    explicit Chain(std::vector<std::unique_ptr<LogSource>> sources) : m_sources(std::move(sources)) {}

    std::size_t Read(char* buffer, std::size_t size) override
    {
        for (; m_current < m_sources.size(); ++m_current) {
            LogSource& source = *m_sources[m_current];
            const std::size_t count = source.Read(buffer, size);
            if (count > 0) {
                return count;
            }
            for (const std::string& trouble : source.Troubles()) {
                Note(trouble);
            }
            m_sources[m_current].reset();
        }
        return 0;
    }

private:
    std::vector<std::unique_ptr<LogSource>> m_sources;
    std::size_t m_current = 0;
};

class CommandSource : public LogSource {
public:
    CommandSource(pid_t pid, UniqueFd output, std::string name)
        : m_pid(pid), m_output(std::move(output), name), m_name(std::move(name))
    {}
    ~CommandSource() override
    {
        if (m_pid != 0) {
            ::kill(m_pid, SIGKILL);
            Wait();
        }
    }

    std::size_t Read(char* buffer, std::size_t size) override
    {
        const std::size_t count = m_output.Read(buffer, size);
        if (count == 0 && m_pid != 0) {
            TellFailure(Wait());
        }
        return count;
    }

private:
    int Wait()
    {
        int status = 0;
        while (::waitpid(m_pid, &status, 0) == -1 && errno == EINTR) {
        }
        m_pid = 0;
        return status;
    }

    void TellFailure(int status)
    {
        for (const std::string& trouble : m_output.Troubles()) {
            Note(trouble);
        }
        const std::string incomplete = ": its output may not be complete.";
        if (WIFSIGNALED(status)) {
            Note(m_name + " was ended by signal " + std::to_string(WTERMSIG(status)) + incomplete);
        } else if (WEXITSTATUS(status) != 0) {
            Note(m_name + " has failed with status " + std::to_string(WEXITSTATUS(status)) + incomplete);
        }
    }

    pid_t m_pid; // 0: its end has been waited for
    DescriptorSource m_output;
    const std::string m_name;
};

/// The texts in the form that the kernel requires. The texts must outlive it.
std::vector<char*> PointersTo(const std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    return pointers;
}

/// Starts a command whose output goes to a descriptor. Returns 0 or an errno.
int Spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment, int output,
          pid_t& pid)
{
    std::vector<char*> words = PointersTo(arguments);
    words.push_back(nullptr);
    std::vector<char*> variables = PointersTo(environment);
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.push_back(*variable);
    }
    variables.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    const int error = ::posix_spawnp(&pid, words.front(), &actions, nullptr, words.data(), variables.data());
    ::posix_spawn_file_actions_destroy(&actions);
    return error;
}

} // namespace

LogSource::~LogSource() = default;

std::unique_ptr<LogSource> ReadDescriptor(UniqueFd fd, std::string name)
{
    return std::make_unique<DescriptorSource>(std::move(fd), std::move(name));
}

std::unique_ptr<LogSource> ReadLogFile(const std::string& path, std::uint64_t offset)
{
    constexpr const char ending[] = ".gz";
    const std::size_t endingSize = std::strlen(ending);
    if (path.size() > endingSize && path.compare(path.size() - endingSize, endingSize, ending) == 0) {
        try {
            return std::make_unique<GzipSource>(path, offset);
        } catch (const Poco::Exception& e) {
            return std::make_unique<EmptySource>(path + " cannot be opened: " + e.displayText() + ".");
        }
    }
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) {
        return std::make_unique<EmptySource>(path + " cannot be opened: " + std::strerror(errno) + ".");
    }
    // A pipe has no offset: it is read from its current position.
    ::lseek(fd.Get(), static_cast<off_t>(offset), SEEK_SET);
    return ReadDescriptor(std::move(fd), path);
}

std::unique_ptr<LogSource> ReadInTurn(std::vector<std::unique_ptr<LogSource>> sources)
{
    return std::make_unique<Chain>(std::move(sources));
}

std::unique_ptr<LogSource> ReadCommand(const std::vector<std::string>& arguments,
                                       const std::vector<std::string>& environment)
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::make_unique<EmptySource>(std::string("no pipe: ") + std::strerror(errno) + ".");
    }
    UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    pid_t pid = 0;
    if (const int error = Spawn(arguments, environment, writeEnd.Get(), pid); error != 0) {
        return std::make_unique<EmptySource>(arguments.front() + " cannot be run: " + std::strerror(error) + ".");
    }
    return std::make_unique<CommandSource>(pid, std::move(readEnd), arguments.front());
}

} // namespace Model
