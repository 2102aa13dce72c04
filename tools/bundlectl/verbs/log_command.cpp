#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "model/attribution.h"
#include "model/log_access.h"
#include "model/log_follower.h"
#include "model/log_reader.h"
#include "output/json_writer.h"
#include "output/times.h"
#include "places.h"
#include "printable.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

using Model::LogLine;
using Model::LogLocation;
using Model::LogReader;
using Model::LogRecord;
using Model::Time;
using Output::Colour;

struct Options {
    Model::Choice choice;
    std::string name;
    std::string since;
    std::string until;
    std::string level;
    bool follow = false;
    bool json = false;
};

/// The records to show.
struct Filter {
    std::string bundle; ///< empty: all
    int level = 0;      ///< this level and above
    std::optional<Time> since;
    std::optional<Time> until;

    bool IsOpen() const { return bundle.empty() && level == 0; }
    bool Passes(const LogRecord& record, const std::string& bundleOfRecord) const
    {
        return record.level >= level && (bundle.empty() || bundle == bundleOfRecord) &&
               (!since || record.time >= *since) && (!until || record.time <= *until);
    }
};

std::string JsonOf(const LogRecord& record, const std::string& bundle)
{
    Output::JsonWriter json;
    json.BeginOutput("log", record.time).Member("level", Model::LevelName(record.level));
    json.Member("pid", record.pid).Member("thread", record.thread).Member("source", record.source);
    json.Member("bundle", bundle.empty() ? std::nullopt : std::optional(bundle)).Member("message", record.message);
    return json.End().Text();
}

/// Prints records up to the present end of the log.
class Printer {
public:
    Printer(const Filter& filter, bool json, const Model::Collection& collection)
        : m_filter(filter), m_json(json), m_terminal(Output::AskTerminal()), m_attribution({})
    {
        for (const Model::DeclaredBundle& bundle : collection.bundles) {
            std::vector<std::string> items;
            for (const Model::DeclaredItem& item : bundle.items) {
                items.push_back(item.name);
            }
            if (bundle.verdict != Model::Verdict::DUPLICATE && !bundle.name.empty()) {
                m_attribution.Know(bundle.name, bundle.loggedPath, items);
            }
        }
    }

    /// False when standard output cannot be written any more.
    bool PrintAll(LogReader& reader)
    {
        LogLine line;
        while (!m_isOver && reader.Next(line)) {
            Take(line);
        }
        std::cout << std::flush;
        return std::cout.good();
    }

    bool HasPrinted() const { return m_hasPrinted; }

    /// Whether all requested records have been read.
    bool IsOver() const { return m_isOver; }

private:
    void Take(const LogLine& line)
    {
        if (line.kind != LogLine::RECORD) {
            PrintForeign(line);
            return;
        }
        const std::string& bundle = m_attribution.Take(line.record);
        m_isInside = (!m_filter.since || line.record.time >= *m_filter.since) &&
                     (!m_filter.until || line.record.time <= *m_filter.until);
        if (m_filter.Passes(line.record, bundle)) {
            m_hasPrinted = true;
            std::cout << (m_json ? JsonOf(line.record, bundle) : TextOf(line.record));
        }
        if (!std::cout.good()) {
            m_isOver = true;
        }
    }

    // Items' output has no bundle and no level, but may contain the searched text.
    void PrintForeign(const LogLine& line)
    {
        if (m_filter.IsOpen() && m_isInside && !m_json) {
            std::cout << Output::Paint(m_terminal, Colour::FAINT, "              | " + Printable(line.text)) << '\n';
        }
    }

    std::string TextOf(const LogRecord& record)
    {
        const bool isError = record.level >= LogRecord::ERROR;
        const std::string time = Output::LocalTime(record.time, Model::Now());
        const auto millisecond = record.time.time_since_epoch().count() / 1000 % 1000;
        std::string text = Output::Paint(m_terminal, Colour::FAINT, time + Fraction(millisecond));
        text += isError ? Output::Paint(m_terminal, Colour::BAD, " E ") : " - ";
        return text +
               Output::Paint(m_terminal, isError ? Colour::BAD : Colour::NONE,
                             Output::Shown(m_terminal, record.message)) +
               "\n";
    }

    static std::string Fraction(std::int64_t millisecond)
    {
        const std::string digits = std::to_string(millisecond < 0 ? millisecond + 1000 : millisecond);
        return "." + std::string(3 - digits.size(), '0') + digits;
    }

    const Filter m_filter;
    const bool m_json;
    const Output::Terminal m_terminal;
    Model::Attribution m_attribution;
    bool m_isInside = true; ///< the latest record is within the times
    bool m_hasPrinted = false;
    bool m_isOver = false;
};

// The offset of the last few records.
std::uint64_t OffsetOfLast(const std::string& path)
{
    constexpr off_t shown = 2048;
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && status.st_size > shown
               ? static_cast<std::uint64_t>(status.st_size - shown)
               : 0;
}

// Records are not printed twice: the follower continues where the reader has ended.
int FollowFile(Printer& printer, const std::string& path, const Filter& filter)
{
    std::uint64_t offset = OffsetOfLast(path);
    if (filter.since) {
        LogReader past(Model::OpenLog({LogLocation::FILE, path, ""}, {filter.since, 0}));
        offset = Model::LogFollower::END;
        printer.PrintAll(past);
    }
    LogReader reader(std::make_unique<Model::LogFollower>(path, offset), LogReader::LastLine::LEAVE);
    constexpr int pause = 200;
    for (bool isOpen = true; isOpen && printer.PrintAll(reader);) {
        pollfd watched{STDOUT_FILENO, 0, 0}; // its reader's end ends the wait
        isOpen = ::poll(&watched, 1, pause) <= 0;
    }
    return EXIT_DONE;
}

int Run(const Options& options, const Filter& filter)
{
    const Model::Installation installation = Model::FindInstallation(options.choice, Model::Proc());
    const LogLocation& location = installation.log;
    Verbs::TellNotes(installation.notes);
    struct stat status {};
    if (location.kind == LogLocation::FILE && ::stat(location.path.c_str(), &status) != 0 && !options.follow) {
        std::cerr << "bundlectl: there is no log " << Printable(location.path) << " (" << location.why << ").\n";
        return EXIT_UNREACHABLE;
    }
    if (location.kind == LogLocation::NOWHERE) {
        return EXIT_UNREACHABLE;
    }
    const Model::Collection collection = installation.collection.empty()
                                             ? Model::Collection()
                                             : Model::ReadCollection(installation.collection, installation.base);
    Printer printer(filter, options.json, collection);
    if (options.follow && location.kind == LogLocation::FILE) {
        return FollowFile(printer, location.path, filter);
    }
    LogReader reader(Model::OpenLog(location, {filter.since, 0, options.follow}));
    const bool isGood = printer.PrintAll(reader);
    Verbs::TellNotes(reader.Troubles());
    if (!filter.bundle.empty() && !printer.HasPrinted() && collection.Find(filter.bundle).empty()) {
        std::cerr << "bundlectl: there is no bundle \"" << filter.bundle << "\", and no record of one.\n";
        return EXIT_UNKNOWN_BUNDLE;
    }
    const bool isUnread = reader.Counts().records == 0 && !reader.Troubles().empty();
    return !isGood ? EXIT_FAILED : isUnread ? EXIT_UNREACHABLE : EXIT_DONE;
}

int ShowLog(const Options& options)
{
    const Time now = Model::Now();
    Filter filter;
    filter.bundle = Printable(options.name);
    filter.level = options.level == "error" ? LogRecord::ERROR : 0;
    filter.since = options.since.empty() ? std::nullopt : Model::ParsePointInTime(options.since, now);
    filter.until = options.until.empty() ? std::nullopt : Model::ParsePointInTime(options.until, now);
    return Run(options, filter);
}

} // namespace

Action DefineLog(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Verbs::AddName(arguments, options->name, false);
    arguments.AddFlag("-f,--follow", "go on with what is written from now on", options->follow);
    Argument level{"--level", "only records of this level: info or error", "LEVEL"};
    level.choices = "info error";
    arguments.Add(level, options->level);
    arguments.Add({"--since", "from then on: 10m, 2h, 14:05, a date, or RFC 3339", "TIME", Verbs::FaultOfTime},
                  options->since);
    arguments.Add({"--until", "up to then", "TIME", Verbs::FaultOfTime}, options->until);
    Verbs::AddJson(arguments, options->json);
    Verbs::AddPlaces(arguments, options->choice);
    return [options] { return ShowLog(*options); };
}
