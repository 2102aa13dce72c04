#include "arguments.h"
#include "command.h"
#include "common/unique_fd.h"
#include "event_command_run.h"
#include "exit_status.h"
#include "output/json_writer.h"
#include "output/times.h"
#include "printable.h"
#include "verbs/places.h"

#include <algapp_bolt_comm.h>
#include <bundle_client.h>

#include <poll.h>
#include <sys/signalfd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <string>
#include <utility>

namespace {

using Common::UniqueFd;
using SystemServer::EVENT_SERVICE_PATH;

struct Options {
    long count = 0;      ///< 0: no limit
    std::string command; ///< for the shell, at each event; empty: none
    bool json = false;
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

using Listener = std::unique_ptr<bundle_client_listener, decltype(&bundle_client_listener_close)>;

/// Opens the event service, and creates it if it is missing. Returns an exit status.
int OpenListener(Listener& listener)
{
    bundle_client_listener* opened = nullptr;
    const int code = bundle_client_listener_open(&opened);
    listener.reset(opened);
    switch (code) {
    case BUNDLE_CLIENT_OK:
        return EXIT_DONE;
    case BUNDLE_CLIENT_NOT_A_FIFO:
        return Failed("is in the way and is no FIFO: remove it.");
    default:
        return FailedFor("cannot be made or opened", errno);
    }
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

bool Print(const bundle_client_event& event, bool asJson)
{
    const std::string publisher = Printable(event.publisher);
    const std::string name = Printable(event.event);
    if (asJson) {
        Output::JsonWriter json;
        json.BeginOutput("events", Model::Now()).Member("publisher", publisher).Member("event", name).End();
        std::cout << json.Text() << std::flush;
    } else {
        constexpr std::size_t seconds = 19; // the fraction is left out
        std::cout << Output::Rfc3339(Model::Now()).substr(0, seconds) << "Z " << publisher << ' ' << name << '\n'
                  << std::flush;
    }
    return std::cout.good();
}

/// The loop of the command.
class Loop {
public:
    Loop(UniqueFd signals, Listener listener, const Options& options)
        : m_signals(std::move(signals)), m_listener(std::move(listener)), m_options(options)
    {}

    int Run()
    {
        std::array<pollfd, 2> watched{
            {{m_signals.Get(), POLLIN, 0}, {bundle_client_listener_fd(m_listener.get()), POLLIN, 0}}};
        while (m_status == EXIT_DONE && !IsDone()) {
            if (::poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) {
                return FailedFor("cannot be waited for", errno);
            }
            if (watched[0].revents != 0) {
                break;
            }
            TakeAll();
        }
        return m_status;
    }

private:
    bool IsDone() const { return m_options.count != 0 && m_seen == m_options.count; }

    /// Prints the events that have come.
    void TakeAll()
    {
        while (!IsDone() && m_status == EXIT_DONE) {
            bundle_client_event event{};
            const int code = bundle_client_listener_next(m_listener.get(), &event, 0);
            const int error = errno;
            if (const std::size_t skipped = bundle_client_listener_skipped(m_listener.get()); skipped > 0) {
                std::cerr << "bundlectl: " << skipped << " byte(s) skipped that are no event.\n";
            }
            if (code == BUNDLE_CLIENT_TIMEOUT) {
                return;
            }
            if (code != BUNDLE_CLIENT_OK) {
                m_status = FailedFor("cannot be read", error);
                return;
            }
            if (!Print(event, m_options.json)) {
                std::cerr << "bundlectl: an event cannot be printed: standard output takes no more.\n";
                m_status = EXIT_FAILED;
            }
            ++m_seen;
            if (!m_options.command.empty() && m_status == EXIT_DONE) {
                RunForEvent(m_options.command, Printable(event.publisher), Printable(event.event));
            }
        }
    }

    UniqueFd m_signals;
    Listener m_listener;
    const Options& m_options;
    long m_seen = 0;
    int m_status = EXIT_DONE;
};

int Listen(const Options& options)
{
    // Before the FIFO is opened: a program that sees the listener may end it by a signal at once. The exit status must
    // then report success.
    UniqueFd signals = TakeEndingSignals();
    Listener listener(nullptr, bundle_client_listener_close);
    const int status = OpenListener(listener);
    return status == EXIT_DONE ? Loop(std::move(signals), std::move(listener), options).Run() : status;
}

} // namespace

Action DefineEvents(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.Add({"--count", "end after so many events", "N"}, options->count, 1, std::numeric_limits<int>::max());
    arguments.Add(
        {"--exec", "run this in a shell at each event, which BUNDLE_EVENT and BUNDLE_EVENT_PUBLISHER tell", "CMD"},
        options->command);
    Verbs::AddJson(arguments, options->json);
    return [options] { return Listen(*options); };
}
