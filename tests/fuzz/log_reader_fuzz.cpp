// The input is a log as it may lie on a disk: cut, overwritten, mixed with what items print. It is read twice, whole
// and in pieces of another size, through the attribution and into histories and a timeline. Both must end alike, count
// every line once, and hand out records that stand in the input.
#include "fuzz/fuzz_target.h"

#include "model/attribution.h"
#include "model/history.h"
#include "model/log_reader.h"
#include "model/timeline.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace {

/// Hands its text out in pieces.
class TextSource : public Model::LogSource {
public:
    TextSource(std::string_view text, std::size_t piece) : m_text(text), m_piece(piece) {}

    std::size_t Read(char* buffer, std::size_t size) override
    {
        const std::size_t count = std::min({size, m_piece, m_text.size()});
        m_text.copy(buffer, count);
        m_text.remove_prefix(count);
        return count;
    }

private:
    std::string_view m_text;
    std::size_t m_piece;
};

struct Result {
    Model::LogCounts counts;
    std::size_t facts = 0;
    std::string messages;
};

Result Read(std::string_view text, std::size_t piece)
{
    Result result;
    Model::History history;
    Model::TimelineBuilder startUp(Model::TimelineBuilder::Window::START_UP);
    Model::TimelineBuilder window(Model::TimelineBuilder::Window::TIMES);
    Model::Attribution attribution([&](const Model::Fact& fact) {
        ++result.facts;
        history.Take(fact);
        startUp.Take(fact);
        window.Take(fact);
    });
    Model::LogReader reader(std::make_unique<TextSource>(text, piece));
    Model::LogRecord record;
    while (reader.Next(record)) {
        Require(text.find(record.line) != std::string_view::npos, "a record is not in the log");
        Require(record.line.find(record.message) != std::string_view::npos, "a message is not in its record");
        result.messages.append(record.message).append("\n");
        attribution.Take(record);
    }
    result.counts = reader.Counts();
    for (Model::TimelineBuilder* const builder : {&startUp, &window}) {
        const auto timeline = builder->Finish(std::nullopt, std::nullopt);
        Require(!timeline || timeline->from <= timeline->to, "a timeline ends before it begins");
    }
    return result;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const Result whole = Read(text, text.size() + 1);
    const Result pieces = Read(text, 7);
    Require(whole.messages == pieces.messages, "the records depend on how the log is read");
    Require(whole.facts == pieces.facts, "the facts depend on how the log is read");
    Require(whole.counts.records == pieces.counts.records && whole.counts.foreign == pieces.counts.foreign &&
                whole.counts.broken == pieces.counts.broken,
            "the counts depend on how the log is read");
    return 0;
}
