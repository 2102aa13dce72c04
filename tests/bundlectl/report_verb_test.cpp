// bundlectl report, with a real server.
#include "bundlectl/verb_test.h"

#include "support/private_mnt.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

class ReportVerb : public VerbTest {};

/// Prints the page's text, one piece on each line. Fails when a tag is not closed, or the page loads something.
constexpr const char READER[] = R"(
import html.parser, sys
class Reader(html.parser.HTMLParser):
    open = []
    def handle_starttag(self, tag, attrs):
        assert tag not in ('script', 'link', 'img', 'iframe', 'object'), tag
        for name, value in attrs:
            assert name in ('xmlns',) or '//' not in (value or ''), (tag, name, value)
        if tag != 'meta':
            self.open.append(tag)
    def handle_startendtag(self, tag, attrs):
        pass
    def handle_endtag(self, tag):
        assert self.open.pop() == tag, tag
    def handle_data(self, data):
        assert 'url(' not in data and '@import' not in data
        print(data)
reader = Reader()
reader.feed(open(sys.argv[1], encoding='utf-8').read())
assert not reader.open, reader.open
)";

} // namespace

TEST_F(ReportVerb, IsOnePageWithAllThatIsKnownAndNoSecret)
{
    daemon.SetEnvironment("API_TOKEN", "hunter2-secret");
    collection.Bundle("radio").Requires("base").Item("tuner.sh", Shell("kill -SEGV $$")).Write();
    collection.Bundle("base").Name("<b>&base").Write();
    collection.Bundle("lonely").Requires("nowhere").Write();
    Serve();
    const std::string file = Note("report.html");
    const Ended ended = Run({"report", "-o", file});
    EXPECT_EQ(ended.status, 0) << ended.errors;
    EXPECT_TRUE(Tells(ended, "The report is in " + file));
    const Ended read = RunToEnd("/usr/bin/python3", {"-c", READER, file});
    EXPECT_EQ(read.status, 0) << read.errors;
    for (const char* const part :
         {"Bundle report", "lonely", "It requires \"nowhere\", which is not there.", "<b>&base", "Who requires whom",
          "Timeline of the bundles", "failed to resolve bundle[lonely]", "kernel", "Way out: "}) {
        EXPECT_TRUE(Tells(read, part));
    }
    EXPECT_FALSE(Has(ReadFile(file), "hunter2-secret"));
    const Ended json = Run({"report", "-o", file, "--json"});
    EXPECT_TRUE(FollowsSchema(json.output));
}

TEST_F(ReportVerb, CanBeMadeOfALogAloneAndSaysWhatCannotBeWritten)
{
    collection.Bundle("base").Write();
    Serve();
    daemon.Stop();
    const Ended page = Run({"report", "-o", "-", "--log", daemon.LogFile(), "--collection", collection.Path()});
    EXPECT_EQ(page.status, 0) << page.errors;
    EXPECT_TRUE(Tells(page, "No bundle server runs."));
    EXPECT_TRUE(Tells(page, "<title>Timeline of the bundles"));
    const Ended failed = Run({"report", "-o", Note("missing/page.html"), "--collection", collection.Path()});
    EXPECT_EQ(failed.status, 1);
    EXPECT_TRUE(Has(failed.errors, "cannot be written"));
    EXPECT_EQ(Run({"report"}).status, 2);
}
