#include "output/format_text.h"
#include "output/times.h"
#include "timeline_view.h"

#include <algorithm>
#include <array>
#include <vector>

namespace Verbs {

using Model::BundleState;
using Model::Microseconds;
using Model::Time;
using Model::Timeline;
using Model::TimelineBundle;
using Model::TimelineMark;
using Output::Colour;
using Output::Terminal;

namespace {

constexpr std::size_t WIDEST_NAME = 20;
constexpr std::size_t COST_WIDTH = 10;

/// One column of a bar. More important things hide less important ones.
struct Cell {
    const char* utf8;
    char ascii;
    Colour colour;
    int rank;
};

constexpr Cell NOTHING{" ", ' ', Colour::NONE, 0};
constexpr Cell INSTALLED{"\u00b7", '.', Colour::FAINT, 1};
constexpr Cell RESOLVED{"\u2500", '-', Colour::FAINT, 2};
constexpr Cell ACTIVE{"\u2588", '#', Colour::GOOD, 3};
constexpr Cell STOPPING{"\u2592", '~', Colour::WARNING, 4};
constexpr Cell STARTING{"\u2593", '=', Colour::WARNING, 5};
constexpr Cell SCRIPT{"S", 'S', Colour::WARNING, 6};
constexpr Cell LAUNCH{"L", 'L', Colour::STRONG, 7};
constexpr Cell END{"E", 'E', Colour::WARNING, 8};
constexpr Cell RELAUNCH{"R", 'R', Colour::WARNING, 9};
constexpr Cell DEATH{"X", 'X', Colour::BAD, 10};
constexpr Cell FAILURE{"!", '!', Colour::BAD, 11};

const Cell& CellOf(BundleState state)
{
    switch (state) {
    case BundleState::INSTALLED:
        return INSTALLED;
    case BundleState::RESOLVED:
        return RESOLVED;
    case BundleState::STARTING:
        return STARTING;
    case BundleState::ACTIVE:
        return ACTIVE;
    case BundleState::STOPPING:
        return STOPPING;
    default:
        return NOTHING;
    }
}

const Cell& CellOf(TimelineMark::Kind kind)
{
    constexpr std::array<const Cell*, 5> cells{&LAUNCH, &RELAUNCH, &END, &DEATH, &FAILURE};
    return *cells[kind];
}

/// The position of a moment in a bar.
class Scale {
public:
    Scale(const Timeline& timeline, std::size_t columns)
        : m_from(timeline.from), m_span(std::max(timeline.to - timeline.from, Microseconds(1))), m_columns(columns)
    {}

    std::size_t Column(Time time) const
    {
        const auto share = static_cast<double>((time - m_from).count()) / static_cast<double>(m_span.count());
        return std::min(static_cast<std::size_t>(std::max(share, 0.0) * static_cast<double>(m_columns)), m_columns - 1);
    }
    std::size_t Columns() const { return m_columns; }
    Microseconds Span() const { return m_span; }

private:
    Time m_from;
    Microseconds m_span;
    std::size_t m_columns;
};

class Bar {
public:
    explicit Bar(const Scale& scale) : m_scale(scale), m_cells(scale.Columns(), &NOTHING) {}

    void Draw(Time from, Time to, const Cell& cell)
    {
        for (std::size_t column = m_scale.Column(from); column <= m_scale.Column(to); ++column) {
            if (cell.rank > m_cells[column]->rank) {
                m_cells[column] = &cell;
            }
        }
    }

    std::string Text(const Terminal& terminal) const
    {
        std::string text;
        for (const Cell* const cell : m_cells) {
            text += cell->rank == 0 ? " "
                                    : Output::Paint(terminal, cell->colour,
                                                    terminal.hasUtf8 ? cell->utf8 : std::string(1, cell->ascii));
        }
        return text;
    }

private:
    const Scale& m_scale;
    std::vector<const Cell*> m_cells;
};

std::string Seconds(Microseconds span, int digits = 3)
{
    return Output::FormatText("%.*f", digits, static_cast<double>(span.count()) / 1e6);
}

std::string Padded(std::string text, std::size_t width)
{
    const std::size_t used = Output::WidthOf(text);
    return text.append(width > used ? width - used : 0, ' ');
}

/// The seconds since the beginning, above the bars.
std::string Ruler(const Scale& scale, std::size_t margin)
{
    constexpr std::size_t step = 12; // columns
    std::string line(margin, ' ');
    for (std::size_t column = 0; column + step / 2 < scale.Columns(); column += step) {
        const auto at = Microseconds(scale.Span().count() * static_cast<long long>(column) /
                                     static_cast<long long>(scale.Columns()));
        const bool isLong = scale.Span() >= std::chrono::seconds(100);
        std::string label = "|" + Seconds(at, isLong ? 0 : 3);
        line += Padded(std::move(label), step);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

std::string Row(const TimelineBundle& bundle, const Scale& scale, std::size_t width, const Terminal& terminal)
{
    Bar bar(scale);
    for (const Model::TimelineState& state : bundle.states) {
        bar.Draw(state.from, state.to, CellOf(state.state));
    }
    for (const Model::TimelineScript& script : bundle.scripts) {
        bar.Draw(script.from, script.to, SCRIPT);
    }
    for (const TimelineMark& mark : bundle.marks) {
        bar.Draw(mark.time, mark.time, CellOf(mark.kind));
    }
    const std::string name =
        Padded(Output::Fitted(terminal, Output::Shown(terminal, NameToShow(bundle)), width), width);
    const std::string cost = Seconds(bundle.cost) + " s";
    return Output::Paint(terminal, bundle.isInChain ? Colour::STRONG : Colour::NONE,
                         (bundle.isInChain ? "* " : "  ") + name) +
           " " + bar.Text(terminal) + std::string(COST_WIDTH > cost.size() ? COST_WIDTH - cost.size() : 1, ' ') + cost +
           "\n";
}

std::string Heading(const Timeline& timeline, const Terminal& terminal)
{
    const Time now = Model::Now();
    std::string text = "Server " + std::to_string(timeline.server) + ", " + Output::LocalTime(timeline.from, now) +
                       " to " + Output::LocalTime(timeline.to, now) + ", " + Seconds(timeline.to - timeline.from) +
                       " s";
    if (timeline.ready) {
        text += ", ready after " + Seconds(*timeline.ready - timeline.from) + " s";
    }
    return Output::Paint(terminal, Colour::STRONG, text + ".") + "\n";
}

std::string ChainText(const Timeline& timeline, const Terminal& terminal)
{
    if (timeline.chain.empty()) {
        return "";
    }
    std::string text = "* the chain that took longest, " + Seconds(timeline.chainCost) + " s: ";
    for (const std::string& name : timeline.chain) {
        text += (&name == &timeline.chain.front() ? "" : " \u2192 ") + name;
    }
    return Output::Shown(terminal, text) + "\n";
}

std::string Legend(const Terminal& terminal)
{
    const auto sign = [&terminal](const Cell& cell) {
        return terminal.hasUtf8 ? std::string(cell.utf8) : std::string(1, cell.ascii);
    };
    return Output::Paint(terminal, Colour::FAINT,
                         sign(INSTALLED) + " installed  " + sign(RESOLVED) + " resolved  " + sign(STARTING) +
                             " starting  " + sign(ACTIVE) + " active  " + sign(STOPPING) + " stopping\n" +
                             "S script  L launch  E end  R relaunch  X death  ! failure\n");
}

} // namespace

std::string NameToShow(const Model::TimelineBundle& bundle)
{
    const bool isPath = bundle.name.compare(0, 1, "/") == 0;
    return isPath ? bundle.name.substr(bundle.name.rfind('/') + 1) + "/" : bundle.name;
}

const char* NameOf(TimelineMark::Kind kind)
{
    constexpr std::array<const char*, 5> names{"launch", "relaunch", "end", "death", "failure"};
    return names[kind];
}

std::string TimelineText(const Timeline& timeline, const Terminal& terminal)
{
    std::size_t width = 6;
    for (const TimelineBundle& bundle : timeline.bundles) {
        width = std::max(width, std::min(WIDEST_NAME, Output::WidthOf(NameToShow(bundle))));
    }
    const std::size_t margin = width + 3;
    const std::size_t columns = std::max<std::size_t>(terminal.columns, 60) - margin - COST_WIDTH;
    const Scale scale(timeline, columns);
    std::string text = Heading(timeline, terminal) + Ruler(scale, margin);
    for (const TimelineBundle& bundle : timeline.bundles) {
        text += Row(bundle, scale, width, terminal);
        if (bundle.omitted > 0) {
            text += "  " + std::to_string(bundle.omitted) + " more of " + Output::Shown(terminal, NameToShow(bundle)) +
                    " are left out.\n";
        }
    }
    return text + ChainText(timeline, terminal) + Legend(terminal);
}

} // namespace Verbs
