#include "log_access.h"

#include "log_files.h"

#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

namespace Model {

namespace {

std::unique_ptr<LogSource> OpenFiles(const std::string& path, const LogPart& part)
{
    // A pipe has no old files and no offsets.
    const std::vector<std::string> files = RotatedFiles(path);
    LogPlace place;
    if (part.server != 0) {
        place = PlaceOfServerStart(files, part.server).value_or(LogPlace());
    } else if (part.since) {
        place = PlaceOfTime(files, *part.since);
    }
    return ReadFrom(files, place);
}

/// All of a unit's journal. journalctl leaves out what its user may not read, and does not say so.
class WholeJournal : public LogSource {
public:
    WholeJournal(std::string unit, std::unique_ptr<LogSource> journal)
        : m_unit(std::move(unit)), m_journal(std::move(journal))
    {
        TakeTroubles();
    }

    std::size_t Read(char* buffer, std::size_t size) override
    {
        const std::size_t count = m_journal->Read(buffer, size);
        m_hasRead = m_hasRead || count > 0;
        TakeTroubles();
        if (!m_hasRead && Troubles().empty()) {
            Note("The journal has nothing of " + m_unit +
                 " that this user may read. Root may read it all, and the members of the group systemd-journal.");
        }
        return count;
    }

private:
    void TakeTroubles()
    {
        const std::vector<std::string>& troubles = m_journal->Troubles();
        for (; m_taken < troubles.size(); ++m_taken) {
            Note(troubles[m_taken]);
        }
    }

    const std::string m_unit;
    const std::unique_ptr<LogSource> m_journal;
    bool m_hasRead = false;
    std::size_t m_taken = 0; // troubles of the journal
};

std::unique_ptr<LogSource> OpenJournal(const std::string& unit, const LogPart& part)
{
    std::vector<std::string> command{"journalctl", "--unit=" + unit, "--output=cat", "--quiet", "--no-pager"};
    if (part.server != 0) {
        // The journal has the output of all processes of the unit. The children's records have their own pids.
        command.emplace_back("--boot");
    } else if (part.since) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(part.since->time_since_epoch());
        command.push_back("--since=@" + std::to_string(seconds.count()));
    }
    if (part.follow) {
        command.emplace_back("--follow");
    }
    std::unique_ptr<LogSource> journal = ReadCommand(command);
    return part.since ? std::move(journal) : std::make_unique<WholeJournal>(unit, std::move(journal));
}

} // namespace

std::unique_ptr<LogSource> OpenLog(const LogLocation& location, const LogPart& part)
{
    switch (location.kind) {
    case LogLocation::FILE:
        return OpenFiles(location.path, part);
    case LogLocation::JOURNAL:
        return OpenJournal(location.path, part);
    case LogLocation::STANDARD_INPUT:
        return ReadDescriptor(Common::UniqueFd(::dup(STDIN_FILENO)), "standard input");
    case LogLocation::NOWHERE:
        break;
    }
    return ReadInTurn({});
}

} // namespace Model
