#include "arguments.h"
#include "command.h"
#include "common/service_directory.h"
#include "common/unique_fd.h"
#include "exit_status.h"
#include "printable.h"

#include <algapp_bolt_comm.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <iterator>
#include <limits>
#include <memory>
#include <string>

namespace {

using Common::UniqueFd;
using SystemServer::EVENT_METHOD;
using SystemServer::EVENT_SERVICE_PATH;
using SystemServer::EventRecord;

struct Options {
    long count = 0; ///< 0: no limit
};

/// What stands in front of every event.
lumo_header EventHeader()
{
    lumo_header header{};
    header.length = sizeof(EventRecord);
    header.method = EVENT_METHOD;
    return header;
}

/// Cuts events out of the bytes of the FIFO. What is written at once arrives at once and in one piece, but a FIFO does
/// not keep what two wrote apart: after bytes that are none of ours the next event is found by its header.
class EventStream {
public:
    void Append(const char* bytes, std::size_t size) { m_bytes.append(bytes, size); }

    /// Takes the next event. False when there is none in full.
    bool Next(EventRecord& record)
    {
        SkipTo(m_bytes.find(m_header));
        if (m_bytes.size() < m_header.size() + sizeof record) {
            return false;
        }
        std::memcpy(&record, m_bytes.data() + m_header.size(), sizeof record);
        m_bytes.erase(0, m_header.size() + sizeof record);
        return true;
    }

    /// Called when the FIFO is empty: what is left is then no beginning of an event but all there is.
    void End() { SkipTo(m_bytes.size()); }

private:
    void SkipTo(std::size_t place)
    {
        // Without a header in sight, one may still begin in the last few bytes.
        const std::size_t held = std::min(m_bytes.size(), m_header.size() - 1);
        const std::size_t skipped = place == std::string::npos ? m_bytes.size() - held : place;
        if (skipped > 0) {
            std::cerr << "bundlectl: " << skipped << " byte(s) skipped that are no event.\n";
            m_bytes.erase(0, skipped);
        }
    }

    const std::string m_header = [] {
        const lumo_header header = EventHeader();
        std::string bytes(sizeof header, '\0');
        std::memcpy(bytes.data(), &header, sizeof header);
        return bytes;
    }();
    std::string m_bytes;
};

int Failed(const char* what)
{
    std::cerr << "bundlectl: no events can be heard: " << EVENT_SERVICE_PATH << ' ' << what << '\n';
    return EXIT_UNREACHABLE;
}

int FailedFor(const std::string& what, int error)
{
    return Failed((what + ": " + std::strerror(error) + '.').c_str());
}

bool MakeFifo()
{
    // Set again, for the umask may have taken from it.
    constexpr mode_t mode = 0660;
    if (::mkfifo(EVENT_SERVICE_PATH, mode) == 0) {
        return ::chmod(EVENT_SERVICE_PATH, mode) == 0;
    }
    return errno == EEXIST;
}

/// Opens the event service, which is made where it is missing. Returns an exit status.
int OpenEventService(UniqueFd& fifo)
{
    if (!Common::MakeServiceDirectory() || !MakeFifo()) {
        return FailedFor("cannot be made", errno);
    }
    // For writing too, so that the end of one publisher is not the end of the file.
    fifo.Reset(::open(EVENT_SERVICE_PATH, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fifo.IsOpen()) {
        return FailedFor("cannot be opened", errno);
    }
    struct stat status {};
    if (::fstat(fifo.Get(), &status) != 0 || !S_ISFIFO(status.st_mode)) {
        return Failed("is in the way and is no FIFO: remove it.");
    }
    return EXIT_DONE;
}

UniqueFd TakeEndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    return UniqueFd(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

template <std::size_t Size> std::string Text(const char (&field)[Size])
{
    return Printable({field, ::strnlen(field, Size)});
}

bool Print(const EventRecord& record)
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&now, &utc);
    std::array<char, 32> time{};
    static_cast<void>(std::strftime(time.data(), time.size(), "%Y-%m-%dT%H:%M:%SZ", &utc));
    std::cout << time.data() << ' ' << Text(record.publisher) << ' ' << Text(record.event) << '\n' << std::flush;
    return std::cout.good();
}

/// The loop of the command.
class Listener {
public:
    Listener(UniqueFd signals, UniqueFd fifo, long count)
        : m_signals(std::move(signals)), m_fifo(std::move(fifo)), m_count(count)
    {}

    int Run()
    {
        std::array<pollfd, 2> watched{{{m_signals.Get(), POLLIN, 0}, {m_fifo.Get(), POLLIN, 0}}};
        while (m_status == EXIT_DONE && !IsDone()) {
            if (::poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) {
                return FailedFor("cannot be waited for", errno);
            }
            if (watched[0].revents != 0) {
                break;
            }
            Read();
        }
        return m_status;
    }

private:
    bool IsDone() const { return m_count != 0 && m_seen == m_count; }

    void Read()
    {
        std::array<char, 4096> bytes{};
        const ssize_t size = ::read(m_fifo.Get(), bytes.data(), bytes.size());
        if (size < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                m_status = FailedFor("cannot be read", errno);
            }
            return;
        }
        m_stream.Append(bytes.data(), static_cast<std::size_t>(size));
        PrintAll();
        if (static_cast<std::size_t>(size) < bytes.size()) {
            m_stream.End();
        }
    }

    void PrintAll()
    {
        EventRecord record{};
        while (!IsDone() && m_stream.Next(record)) {
            if (!Print(record)) {
                std::cerr << "bundlectl: an event cannot be printed: standard output takes no more.\n";
                m_status = EXIT_FAILED;
                return;
            }
            ++m_seen;
        }
    }

    UniqueFd m_signals;
    UniqueFd m_fifo;
    const long m_count;
    long m_seen = 0;
    int m_status = EXIT_DONE;
    EventStream m_stream;
};

int Listen(const Options& options)
{
    // Before the FIFO: whoever sees that events are heard may end the listening, and be told that it went well.
    UniqueFd signals = TakeEndingSignals();
    UniqueFd fifo;
    const int status = OpenEventService(fifo);
    return status == EXIT_DONE ? Listener(std::move(signals), std::move(fifo), options.count).Run() : status;
}

} // namespace

Action DefineEvents(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.Add({"--count", "end after so many events", "N"}, options->count, 1, std::numeric_limits<int>::max());
    return [options] { return Listen(*options); };
}
