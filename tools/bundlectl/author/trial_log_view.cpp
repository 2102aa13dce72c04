#include "trial_log_view.h"

#include "model/log_follower.h"
#include "printable.h"

#include <algorithm>
#include <iostream>
#include <memory>

namespace Trials {

namespace {

using Output::Colour;

constexpr std::size_t SECONDS_WIDTH = 8;
constexpr std::size_t BUNDLE_WIDTH = 12;

std::string Padded(const std::string& text, std::size_t width, bool toTheRight)
{
    const std::string blanks(width - std::min(width, Output::WidthOf(text)), ' ');
    return toTheRight ? blanks + text : text + blanks;
}

std::string Seconds(Model::Microseconds span)
{
    const auto milliseconds = std::max<std::int64_t>(0, span.count() / 1000);
    const std::string digits = std::to_string(milliseconds % 1000);
    return std::to_string(milliseconds / 1000) + "." + std::string(3 - digits.size(), '0') + digits;
}

} // namespace

TrialLogView::TrialLogView(const std::string& log, const Output::Terminal& terminal)
    : m_reader(std::make_unique<Model::LogFollower>(log, 0), Model::LogReader::LastLine::LEAVE), m_attribution({}),
      m_terminal(terminal)
{}

bool TrialLogView::Print()
{
    for (Model::LogLine line; std::cout.good() && m_reader.Next(line);) {
        std::cout << TextOf(line);
    }
    std::cout << std::flush;
    return std::cout.good();
}

std::string TrialLogView::TextOf(const Model::LogLine& line)
{
    if (line.kind != Model::LogLine::RECORD) {
        return std::string(SECONDS_WIDTH, ' ') + " | " + Output::Shown(m_terminal, Printable(line.text)) + "\n";
    }
    const Model::LogRecord& record = line.record;
    const bool isError = record.level >= Model::LogRecord::ERROR;
    m_first = m_first == Model::Time() ? record.time : m_first;
    const std::string bundle = Output::Shown(m_terminal, m_attribution.Take(record));
    return Output::Paint(m_terminal, Colour::FAINT, Padded(Seconds(record.time - m_first), SECONDS_WIDTH, true)) +
           (isError ? Output::Paint(m_terminal, Colour::BAD, " E ") : " - ") +
           Output::Paint(m_terminal, Colour::STRONG, Padded(bundle, BUNDLE_WIDTH, false)) + " " +
           Output::Paint(m_terminal, isError ? Colour::BAD : Colour::NONE, Output::Shown(m_terminal, record.message)) +
           "\n";
}

} // namespace Trials
