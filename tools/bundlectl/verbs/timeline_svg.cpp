#include "output/format_text.h"
#include "output/markup.h"
#include "output/times.h"
#include "timeline_view.h"

#include <algorithm>

namespace Verbs {

using Model::Microseconds;
using Model::Time;
using Model::Timeline;
using Model::TimelineBundle;
using Model::TimelineMark;

namespace {

constexpr int WIDTH = 960;
constexpr int LABELS = 170; ///< part of it for the names
constexpr int COSTS = 80;   ///< part of it for the seconds at the end of a row
constexpr int TOP = 46;
constexpr int ROW = 24;
constexpr int BAR = 14;

constexpr const char STYLE[] =
    "<style>"
    ".tl{--ink:#1c2330;--faint:#5d6778;--grid:#d5dae2;--paper:#fff;--installed:#c9d0da;--resolved:#8fa3bf;"
    "--starting:#e0a100;--active:#3c9a5f;--stopping:#b98a52;--script:#7a4fb5;--death:#c92a2a;--launch:#1c2330;"
    "font:13px system-ui,sans-serif}"
    "@media(prefers-color-scheme:dark){.tl{--ink:#e6e9ef;--faint:#9aa5b5;--grid:#39424f;--paper:#161b22;"
    "--installed:#4a5463;--resolved:#5f7696;--starting:#d9a520;--active:#4fb477;--stopping:#a17a4c;--script:#a98ae0;"
    "--death:#ff6b6b;--launch:#e6e9ef}}"
    ".tl .paper{fill:var(--paper)}.tl text{fill:var(--ink)}.tl .faint{fill:var(--faint);font-size:11px}"
    ".tl .grid{stroke:var(--grid)}.tl .chain{font-weight:700}"
    ".tl .Installed{fill:var(--installed)}.tl .Resolved{fill:var(--resolved)}.tl .Starting{fill:var(--starting)}"
    ".tl .Active{fill:var(--active)}.tl .Stopping{fill:var(--stopping)}.tl .script{fill:var(--script)}"
    ".tl .launch{fill:var(--launch)}.tl .relaunch{fill:var(--starting);stroke:var(--ink)}"
    ".tl .end{fill:none;stroke:var(--ink);stroke-width:1.5}.tl .death,.tl "
    ".failure{stroke:var(--death);stroke-width:2.5}"
    "</style>";

std::string Seconds(Microseconds span)
{
    return Output::FormatText("%.3f s", static_cast<double>(span.count()) / 1e6);
}

std::string Number(double value)
{
    return Output::FormatText("%.1f", value);
}

class Svg {
public:
    explicit Svg(const Timeline& timeline) : m_timeline(timeline) {}

    std::string Text()
    {
        const int height = TOP + static_cast<int>(m_timeline.bundles.size()) * ROW + 58;
        m_text = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"tl\" role=\"img\" viewBox=\"0 0 " +
                 std::to_string(WIDTH) + " " + std::to_string(height) + "\"><title>Timeline of the bundles</title>" +
                 STYLE + "<rect class=\"paper\" width=\"100%\" height=\"100%\"/>";
        DrawHeading(height);
        int top = TOP;
        for (const TimelineBundle& bundle : m_timeline.bundles) {
            DrawBundle(bundle, top);
            top += ROW;
        }
        DrawLegend(top + 22);
        return m_text + "</svg>\n";
    }

private:
    double Place(Time time) const
    {
        const auto span = std::max(m_timeline.to - m_timeline.from, Microseconds(1));
        const double share = static_cast<double>((time - m_timeline.from).count()) / static_cast<double>(span.count());
        return LABELS + share * (WIDTH - LABELS - COSTS);
    }

    void Write(double x, double y, const std::string& kind, const std::string& text)
    {
        m_text += "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" class=\"" + kind + "\">" +
                  Output::Markup(text) + "</text>";
    }

    void DrawHeading(int height)
    {
        constexpr int parts = 5;
        for (int part = 0; part <= parts; ++part) {
            const Microseconds at = (m_timeline.to - m_timeline.from) * part / parts;
            const double x = Place(m_timeline.from + at);
            m_text += "<line class=\"grid\" x1=\"" + Number(x) + "\" x2=\"" + Number(x) + "\" y1=\"36\" y2=\"" +
                      std::to_string(height - 52) + "\"/>";
            Write(x + 2, 32, "faint", Seconds(at));
        }
        Write(8, 16, "",
              "Server " + std::to_string(m_timeline.server) + ", from " + Output::Rfc3339(m_timeline.from) + ", " +
                  Seconds(m_timeline.to - m_timeline.from));
    }

    void DrawSpan(Time from, Time to, int y, int size, const std::string& kind, const std::string& title)
    {
        const double left = Place(from);
        m_text += "<rect class=\"" + kind + "\" x=\"" + Number(left) + "\" y=\"" + std::to_string(y) + "\" width=\"" +
                  Number(std::max(Place(to) - left, 1.0)) + "\" height=\"" + std::to_string(size) + "\"><title>" +
                  Output::Markup(title + ", " + Seconds(to - from)) + "</title></rect>";
    }

    // The shapes differ, so that they can be distinguished without colours.
    void DrawMark(const std::string& kind, double x, double y, const std::string& title)
    {
        const std::string place =
            "<g transform=\"translate(" + Number(x) + " " + Number(y) + ")\" class=\"" + kind + "\">";
        const bool isCross = kind == "death" || kind == "failure";
        const std::string shape = kind == "launch"             ? "<path d=\"M-4-5L5 0L-4 5z\"/>"
                                  : kind == "relaunch"         ? "<path d=\"M-5 5L0-5L5 5z\"/>"
                                  : kind == "end"              ? "<circle r=\"4\"/>"
                                  : isCross && kind == "death" ? "<path d=\"M-4-4L4 4M4-4L-4 4\"/>"
                                                               : "<path d=\"M0-6V2M0 5V6\"/>";
        m_text += place + "<title>" + Output::Markup(title) + "</title>" + shape + "</g>";
    }

    void DrawBundle(const TimelineBundle& bundle, int top)
    {
        constexpr std::size_t longest = 22;
        const Output::Terminal utf8{false, false, true};
        const std::string name = (bundle.isInChain ? "* " : "") + Output::Fitted(utf8, NameToShow(bundle), longest);
        Write(8, top + 12, bundle.isInChain ? "chain" : "", name);
        for (const Model::TimelineState& state : bundle.states) {
            DrawSpan(state.from, state.to, top, BAR, Model::NameOf(state.state),
                     bundle.name + " " + Model::NameOf(state.state));
        }
        for (const Model::TimelineScript& script : bundle.scripts) {
            DrawSpan(script.from, script.to, top + BAR, 4, "script", bundle.name + " " + script.name);
        }
        const int middle = top + BAR / 2;
        for (const TimelineMark& mark : bundle.marks) {
            DrawMark(NameOf(mark.kind), Place(mark.time), middle,
                     std::string(NameOf(mark.kind)) + " " + mark.item + " " + mark.text);
        }
        Write(WIDTH - COSTS + 8, top + 12, "faint", Seconds(bundle.cost));
    }

    void DrawLegend(int y)
    {
        double x = LABELS;
        for (const char* const kind : {"Installed", "Resolved", "Starting", "Active", "Stopping", "script"}) {
            m_text += "<rect class=\"" + std::string(kind) + "\" x=\"" + Number(x) + "\" y=\"" + std::to_string(y - 9) +
                      "\" width=\"12\" height=\"10\"/>";
            Write(x + 16, y, "faint", kind);
            x += 90;
        }
        x = LABELS + 6;
        for (const char* const kind : {"launch", "relaunch", "end", "death", "failure"}) {
            DrawMark(kind, x, y + 14, kind);
            Write(x + 10, y + 18, "faint", kind);
            x += 90;
        }
        Write(8, y, "faint", "* chain, " + Seconds(m_timeline.chainCost));
    }

    const Timeline& m_timeline;
    std::string m_text;
};

} // namespace

std::string TimelineSvg(const Timeline& timeline)
{
    return Svg(timeline).Text();
}

} // namespace Verbs
