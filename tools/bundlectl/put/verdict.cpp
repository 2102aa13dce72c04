#include "verdict.h"

#include "model/attribution.h"
#include "model/files.h"
#include "model/log_access.h"
#include "model/log_reader.h"
#include "model/reasons.h"
#include "printable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <thread>

namespace Put {

namespace {

using Model::Fact;

/// Collects what the log shows of one bundle from a moment on.
class Watch {
public:
    Watch(const Awaited& awaited, pid_t server) : m_awaited(awaited), m_server(server) {}

    void Take(const Fact& fact);

    bool IsActive() const { return m_isActive; }
    const std::string& Failure() const { return m_failure; }
    /// Whether the server could not stop the former version, because one of its items was dead at that moment.
    bool IsHeldByDeadItem() const { return m_isHeldByDeadItem; }

private:
    bool IsOurs(const Fact& fact) const
    {
        return fact.bundle == Printable(m_awaited.bundle) ||
               (fact.bundle.empty() && Model::BaseName(fact.path) == Printable(m_awaited.directory));
    }
    void Fail(const std::string& text, const Fact& fact)
    {
        if (m_failure.empty()) {
            m_failure = text + (fact.text.empty() ? "" : " " + fact.text);
        }
    }
    void TakeItem(const Fact& fact);

    const Awaited& m_awaited;
    const pid_t m_server;
    bool m_hasBegun = false; // the server has read the new version's manifest
    bool m_isActive = false;
    std::set<pid_t> m_items; // launched since
    std::string m_failure;
    bool m_isHeldByDeadItem = false;
};

/// A part of the reason for a failed update.
constexpr const char KILL_FAILED[] = " activator stop :kill process[";

void Watch::Take(const Fact& fact)
{
    if (fact.server != m_server || !IsOurs(fact)) {
        return;
    }
    switch (fact.kind) {
    case Fact::LOADED:
    case Fact::MANIFEST_UPDATED:
        m_hasBegun = true;
        break;
    case Fact::STATE_CHANGED:
        m_isActive = m_hasBegun && fact.text == "Active";
        break;
    case Fact::LOAD_REFUSED:
    case Fact::RESOLVE_FAILED:
    case Fact::START_FAILED:
        Fail("The server refuses it:", fact);
        break;
    case Fact::HOT_START_FAILED:
        Fail("The server cannot start it; bundlectl why tells more.", fact);
        break;
    case Fact::UPDATE_FAILED:
        m_isHeldByDeadItem |= m_failure.empty() && fact.text.find(KILL_FAILED) != std::string::npos;
        Fail("The server cannot update it:", fact);
        break;
    default:
        TakeItem(fact);
        break;
    }
}

void Watch::TakeItem(const Fact& fact)
{
    const bool isNew = m_items.count(fact.pid) != 0;
    if (fact.kind == Fact::ITEM_LAUNCHED && m_hasBegun) {
        m_items.insert(fact.pid);
    } else if (fact.kind == Fact::ITEM_KILLED && isNew) {
        Fail("Its item " + fact.item + " died of " + Model::NameOfSignal(fact.number) + ".", {});
    } else if (fact.kind == Fact::ITEM_EXITED && isNew && fact.number != 0) {
        Fail("Its item " + fact.item + " ended with status " + std::to_string(fact.number) + ".", {});
    } else if (fact.kind == Fact::THREAD_FAILED && m_hasBegun) {
        Fail("Its item " + fact.item + " failed:", fact);
    }
}

/// Reads the log from the moment on. False when it cannot be read.
bool Read(const Model::Installation& installation, Model::Time since, Watch& watch)
{
    if (installation.log.kind == Model::LogLocation::FILE && ::access(installation.log.path.c_str(), R_OK) != 0) {
        return false;
    }
    Model::LogPart part;
    part.since = since;
    const auto source = Model::OpenLog(installation.log, part);
    if (!source->Troubles().empty()) {
        return false;
    }
    Model::LogReader reader(Model::OpenLog(installation.log, part));
    Model::Attribution attribution([&watch](const Fact& fact) { watch.Take(fact); });
    for (Model::LogRecord record; reader.Next(record);) {
        if (record.time >= since) {
            attribution.Take(record);
        }
    }
    return true;
}

} // namespace

Verdict::Verdict(const Model::Installation& installation) : m_installation(installation), m_since(Model::Now()) {}

Outcome Verdict::Wait(const Awaited& awaited, std::chrono::milliseconds patience, std::chrono::milliseconds soak) const
{
    using Clock = std::chrono::steady_clock;
    const bool isJournal = m_installation.log.kind == Model::LogLocation::JOURNAL;
    const std::chrono::milliseconds pause(isJournal ? 1000 : 100);
    const Clock::time_point end = Clock::now() + patience;
    Model::Time since = m_since;
    constexpr Clock::time_point never = Clock::time_point::max();
    Clock::time_point ripe = never;
    for (;;) {
        Watch watch(awaited, m_installation.server ? m_installation.server->stat.pid : 0);
        if (m_installation.log.kind == Model::LogLocation::NOWHERE || !Read(m_installation, since, watch)) {
            return {Outcome::UNKNOWN, "Its log " + Printable(m_installation.log.path) + " cannot be read (" +
                                          m_installation.log.why + ")."};
        }
        const Clock::time_point now = Clock::now();
        // An item that crashes again and again is dead for a second each time and cannot be killed then. Touching the
        // directory counts as a change, so the server tries once more.
        if (watch.IsHeldByDeadItem() && now < end) {
            since = Model::Now();
            ripe = never;
            if (::utimensat(AT_FDCWD, (m_installation.collection + "/" + awaited.directory).c_str(), nullptr, 0) == 0) {
                continue;
            }
        }
        if (!watch.Failure().empty()) {
            return {Outcome::FAILED, watch.Failure()};
        }
        if (watch.IsActive() && ripe == never) {
            ripe = now + soak;
        }
        if (now >= ripe) {
            return {Outcome::ACTIVE, ""};
        }
        if (ripe == never && now >= end) {
            return {Outcome::NO_VERDICT,
                    "It has not become Active in time. A script can hold the server: bundlectl why tells which."};
        }
        std::this_thread::sleep_for(pause);
    }
}

namespace {

/// Whether the server follows the collection. The path must be without links.
bool Follows(const Model::ServerProcess& server, const std::string& collection)
{
    const std::string program = server.program.substr(0, server.program.rfind('/') + 1);
    const Model::ServerConfiguration own = Model::ReadConfiguration(server.configuration, program);
    const std::string path = Model::AbsolutePath(server.directory.value_or("/"), own.collection);
    return server.isOfOurMounts.value_or(true) && own.trouble.empty() && Model::RealPath(path) == collection;
}

Model::Installation WithServerOf(const std::string& collection, const Model::Choice& choice)
{
    Model::Installation installation = Model::FindInstallation(choice, Model::Proc());
    if (installation.server && !Follows(*installation.server, collection)) {
        installation.server.reset();
    }
    return installation;
}

} // namespace

Model::Installation FindServerOf(const std::string& collection, const Model::Choice& choice)
{
    const std::string wanted = Model::RealPath(collection);
    Model::Choice choiceOfServer = choice;
    choiceOfServer.collection.clear();
    const Model::Installation found = Model::FindInstallation(choiceOfServer, Model::Proc());
    if (!found.server || !Follows(*found.server, wanted)) {
        const auto other = std::find_if(found.others.begin(), found.others.end(),
                                        [&wanted](const auto& server) { return Follows(server, wanted); });
        if (other != found.others.end()) {
            choiceOfServer.configuration = other->configuration;
        }
    }
    return WithServerOf(wanted, choiceOfServer);
}

} // namespace Put
