#include "model/event.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

using Model::Event;
using Model::EVENT_TEXTS;
using Model::EventKind;
using Model::EventOf;
using Model::EventText;

namespace {

namespace fs = std::filesystem;

/// The sources that write to the log.
std::vector<std::string> Sources()
{
    std::vector<std::string> sources;
    for (const char* directory : {"system_server", "platform/host", "public"}) {
        for (const auto& entry : fs::recursive_directory_iterator(fs::path(PROJECT_SOURCES) / directory)) {
            const std::string ending = entry.path().extension();
            if (ending == ".cpp" || ending == ".h") {
                sources.push_back(ReadFile(entry.path()));
            }
        }
    }
    return sources;
}

/// Texts that the server builds from pieces, and their form in the table.
const std::vector<std::pair<std::string, std::string>> COMPOSED = {
    {R"(BUNDLE_ERROR("%s", ("failed to load bundles from " + path + ":" + e.displayText()).c_str()))",
     "failed to load bundles from %s:%s"},
    {R"(BUNDLE_ERROR("%s", ("failed to resolve bundle[" + name + "] :" + e.displayText()).c_str()))",
     "failed to resolve bundle[%s] :%s"},
    {R"(BUNDLE_ERROR("%s", ("failed to start bundle[" + name + "] :" + e.displayText()).c_str()))",
     "failed to start bundle[%s] :%s"},
};

/// The formats of all calls in the sources that log.
std::set<std::string> LoggedTexts()
{
    const std::regex call(
        R"re((?:BUNDLE_INFO|BUNDLE_ERROR|ZQ_WriteLog|ZQ_WriteLanguageLog|WriteOwnRecord)\(([^"();]|\([^()]*\))*("(?:[^"\\]|\\.)*"(?:[\s,]*"(?:[^"\\]|\\.)*")*))re");
    const std::regex literal(R"re("((?:[^"\\]|\\.)*)"(\s*,)?)re");
    std::set<std::string> texts;
    for (const std::string& source : Sources()) {
        for (std::sregex_iterator found(source.begin(), source.end(), call), end; found != end; ++found) {
            const std::string literals = (*found)[2];
            std::string text;
            for (std::sregex_iterator piece(literals.begin(), literals.end(), literal); piece != end; ++piece) {
                text += (*piece)[1];
                if ((*piece)[2].matched) {
                    texts.insert(text);
                    text.clear();
                }
            }
            texts.insert(text);
        }
    }
    texts.erase("");
    texts.erase("%s");
    return texts;
}

std::set<std::string> TableTexts()
{
    std::set<std::string> texts;
    for (const EventText* text = EVENT_TEXTS; text->text != nullptr; ++text) {
        texts.insert(text->text);
    }
    return texts;
}

/// The text as in a record, with a value in place of each placeholder.
std::string FilledIn(const std::string& text)
{
    const std::string words = std::regex_replace(text, std::regex("%s"), "radio.x");
    return std::regex_replace(std::regex_replace(words, std::regex("%c"), "x"), std::regex("%l?z?[du]"), "17");
}

} // namespace

TEST(TheTableOfEvents, HasEachTextOfTheServer)
{
    const std::set<std::string> known = TableTexts();
    const std::set<std::string> logged = LoggedTexts();
    ASSERT_GT(logged.size(), 100U);
    for (const std::string& text : logged) {
        EXPECT_EQ(known.count(text), 1U) << "add to event_texts.cpp: " << text;
    }
}

TEST(TheTableOfEvents, HasNoTextThatTheServerNoLongerWrites)
{
    std::set<std::string> logged = LoggedTexts();
    const std::vector<std::string> sources = Sources();
    for (const auto& [code, text] : COMPOSED) {
        const bool isThere = std::any_of(sources.begin(), sources.end(), [&code = code](const std::string& source) {
            return source.find(code) != std::string::npos;
        });
        EXPECT_TRUE(isThere) << code;
        logged.insert(text);
    }
    for (const std::string& text : TableTexts()) {
        EXPECT_EQ(logged.count(text), 1U) << "the server does not write: " << text;
    }
}

TEST(TheTableOfEvents, GivesEachTextItsOwnMeaning)
{
    for (const EventText* text = EVENT_TEXTS; text->text != nullptr; ++text) {
        const Event event = EventOf(FilledIn(text->text));
        EXPECT_TRUE(event.isKnown) << text->text;
        EXPECT_EQ(event.kind, text->kind) << text->text;
    }
}

TEST(AnEvent, HasTheArgumentsOfItsText)
{
    const Event event = EventOf("bundle[radio] state changing[Starting] -> [Active]");
    EXPECT_EQ(event.kind, EventKind::STATE_CHANGES);
    EXPECT_EQ(event.arguments[0], "radio");
    EXPECT_EQ(event.arguments[1], "Starting");
    EXPECT_EQ(event.arguments[2], "Active");
}

TEST(AnEvent, HasNumbers)
{
    const Event event =
        EventOf("radio.tuner[4711] exit status [255] need relaunch and now radio.tuner is relaunching ...");
    EXPECT_EQ(event.kind, EventKind::NEEDS_RELAUNCH);
    EXPECT_EQ(event.arguments[0], "radio.tuner");
    EXPECT_EQ(event.Number(1), 4711);
    EXPECT_EQ(event.Number(2), 255);
}

TEST(AnEvent, ToleratesNamesThatLookLikeTheText)
{
    const Event event = EventOf("a[b].c[7][4711] normal termination, exit status: 3.");
    EXPECT_EQ(event.kind, EventKind::EXITED);
    EXPECT_EQ(event.arguments[0], "a[b].c[7]");
    EXPECT_EQ(event.Number(1), 4711);
}

TEST(AnEvent, IsNotReadFromAnUnknownOrCutText)
{
    EXPECT_FALSE(EventOf("").isKnown);
    EXPECT_FALSE(EventOf("an item says something").isKnown);
    EXPECT_FALSE(EventOf("bundle[radio] state changing[Starting] -> [Acti").isKnown);
    EXPECT_FALSE(EventOf("radio.tuner[x] normal termination, exit status: 3.").isKnown);
}
