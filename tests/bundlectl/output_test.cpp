// bundlectl's tables, its JSON, and the abilities of a terminal.
#include "output/json_writer.h"
#include "output/table.h"

#include "support/program.h"

#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>

namespace {

using Output::Colour;
using Output::JsonWriter;
using Output::Table;
using Output::Terminal;

Terminal Wide()
{
    Terminal terminal;
    terminal.hasUtf8 = true;
    return terminal;
}

Terminal NarrowScreen()
{
    Terminal terminal = Wide();
    terminal.isTerminal = true;
    terminal.columns = 16;
    return terminal;
}

} // namespace

TEST(ATable, HasColumnsAsWideAsTheyNeedBeAndNoBlanksAtTheEnd)
{
    Table table({"NAME", "PID", "WHY"});
    table.Add({"radio", "7", ""});
    table.Add({"clock", "1234", "it died"});
    EXPECT_EQ(table.Text(Wide()), "NAME   PID   WHY\n"
                                  "radio  7\n"
                                  "clock  1234  it died\n");
}

TEST(ATable, LeavesOutColumnsInWhichNothingStands)
{
    Table table({"NAME", "PID", "WHY"});
    table.Add({"radio", "", "it died"});
    EXPECT_EQ(table.Text(Wide()), "NAME   WHY\nradio  it died\n");
}

TEST(ATable, CountsColumnsOfTheScreenAndNotBytes)
{
    Table table({"NAME", "X"});
    table.Add({"\u00e4\u00f6\u00fc", "1"});
    table.Add({"four", "2"});
    EXPECT_EQ(table.Text(Wide()), "NAME  X\n\u00e4\u00f6\u00fc   1\nfour  2\n");
}

TEST(ATable, IsCutAtTheEdgeOfATerminalOnly)
{
    Table table({"NAME", "WHY"});
    table.Add({"radio", "it died again and again"});
    EXPECT_EQ(table.Text(NarrowScreen()), "NAME   WHY\nradio  it died \u2026\n");
    EXPECT_EQ(table.Text(Wide()), "NAME   WHY\nradio  it died again and again\n");
}

TEST(ATable, ShowsItsLastColumnBelowWhenTheTerminalIsTooNarrowForIt)
{
    Table table({"NAME", "PID", "WHY"}, Table::Last::BELOW);
    table.Add({"radio", "1234", "it died again"});
    table.Add({"clock", "7", ""});
    table.Add({"lamp", "8", "it died again and again"});
    EXPECT_EQ(table.Text(NarrowScreen()), "NAME   PID\n"
                                          "radio  1234\n   it died again\n"
                                          "clock  7\n"
                                          "lamp   8\n   it died agai\u2026\n");
    EXPECT_TRUE(Has(table.Text(Wide()), "radio  1234  it died again\n"));
    Terminal wide = NarrowScreen();
    wide.columns = 80;
    EXPECT_TRUE(Has(table.Text(wide), "radio  1234  it died again\n"));
}

TEST(ATable, PaintsACellWithoutMovingItsNeighbours)
{
    Terminal terminal = Wide();
    terminal.hasColour = true;
    Table table({"A", "B"});
    table.Add({{"up", Colour::GOOD}, "x"});
    const std::string text = table.Text(terminal);
    EXPECT_NE(text.find("\x1b["), std::string::npos);
    EXPECT_NE(text.find("m  x\n"), std::string::npos) << text;
}

TEST(TheJsonWriter, SeparatesMembersAndClosesWhatItHasOpened)
{
    JsonWriter json;
    json.BeginObject().Member("a", 1).Key("b").BeginArray().Value("x").BeginObject().End().Value(true).End();
    json.Member("c", std::optional<int>()).Member("d", std::optional<bool>(false)).Key("e").BeginArray().End().End();
    EXPECT_EQ(json.Text(), R"({"a":1,"b":["x",{},true],"c":null,"d":false,"e":[]})"
                           "\n");
}

TEST(TheJsonWriter, EscapesWhatATextMayNotHaveAndMendsBrokenUtf8)
{
    const auto written = [](std::string_view text) {
        JsonWriter json;
        json.BeginArray().Value(text).End();
        return json.Text();
    };
    EXPECT_EQ(written("\"\\/\n\t\x01\x7f"), R"(["\"\\/\u000a\u0009\u0001\u007f"])"
                                            "\n");
    EXPECT_EQ(written("\u00e4\U0001f600"), "[\"\u00e4\U0001f600\"]\n");
    for (const char* const broken : {"\xff", "\xc3", "\xe2\x82", "\xed\xa0\x80", "\xc0\xaf", "\xf5\x80\x80\x80"}) {
        EXPECT_NE(written(broken).find("\ufffd"), std::string::npos) << broken;
    }
    EXPECT_EQ(written(std::string_view("a\0b", 3)), "[\"a\\u0000b\"]\n");
}

TEST(TheJsonWriter, WritesNumbersTimesAndSpans)
{
    JsonWriter json;
    json.BeginArray().Value(std::numeric_limits<long long>::min());
    json.Value(Model::Time(Model::Microseconds(1'500'000'000'000'042)));
    json.Value(Model::Microseconds(1'250'000)).Value(Model::Microseconds(1)).End();
    EXPECT_EQ(json.Text(), "[-9223372036854775808,\"2017-07-14T02:40:00.000042Z\",1.250000,0.000001]\n");
}

TEST(WhatIsShown, FallsBackToAsciiAndIsEscaped)
{
    EXPECT_EQ(Output::Shown(Wide(), "a \u2192 \u00e4\x1b[31m"), "a \u2192 \u00e4\\033[31m");
    EXPECT_EQ(Output::Shown(Terminal(), "a \u2192 \u00e4"), "a -> ?");
    EXPECT_EQ(Output::Fitted(Wide(), "abcdef", 4), "abc\u2026");
    EXPECT_EQ(Output::WidthOf("\u00e4b"), 2U);
    EXPECT_EQ(Output::Paint(Terminal(), Colour::BAD, "x"), "x");
}
