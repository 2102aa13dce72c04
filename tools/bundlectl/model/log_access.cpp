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
    return ReadCommand(command);
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
