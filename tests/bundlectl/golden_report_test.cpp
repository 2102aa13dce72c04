// The report of a fixed system at a fixed time is the page in the directory "golden". After a change that is meant:
//   BUNDLE_SERVER_RENEW_GOLDEN=1 ctest --preset dev -R TheGoldenReport
// writes it anew. Look at it in a browser, and commit it with the change.
#include "model/log_reader.h"
#include "verbs/report_page.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char LOG[] = GOLDEN "/start_up.log";
constexpr pid_t SERVER = 9837;
constexpr const char COLLECTION[] = "/data/bundles";

Model::DeclaredBundle Declared(const std::string& name, std::vector<std::string> required,
                               const std::vector<std::string>& items)
{
    Model::DeclaredBundle bundle;
    bundle.path = std::string(COLLECTION) + "/" + name;
    bundle.loggedPath = bundle.path;
    bundle.name = name;
    bundle.required = std::move(required);
    for (const std::string& item : items) {
        bundle.items.push_back({item, "", bundle.path + "/./bin/" + item});
    }
    return bundle;
}

Model::Collection CollectionOfTheLog()
{
    Model::Collection collection;
    collection.path = COLLECTION;
    collection.bundles = {Declared("odd", {}, {}), Declared("lonely", {"nowhere"}, {}),
                          Declared("clock", {}, {"clock.sh"}), Declared("radio", {"base"}, {"tuner.sh", "once.sh"}),
                          Declared("base", {}, {"based.sh"})};
    Model::DeclaredBundle& odd = collection.bundles[0];
    odd.name.clear();
    odd.verdict = Model::Verdict::MANIFEST_BROKEN;
    odd.reason = "Not found: global.bundle_load_mode";
    odd.manifestLine = 1;
    Model::DeclaredBundle& lonely = collection.bundles[1];
    lonely.verdict = Model::Verdict::REQUIRED_MISSING;
    lonely.chain = {"lonely", "nowhere"};
    return collection;
}

Model::BundleProcess Running(pid_t pid, const std::string& bundle, const std::string& item)
{
    Model::BundleProcess process;
    process.stat.pid = pid;
    process.stat.state = 'S';
    process.stat.parent = SERVER;
    process.role = Model::ProcessRole::ITEM;
    process.bundle = bundle;
    process.item = item;
    process.itemPid = pid;
    return process;
}

/// The system of the log, some seconds after its start-up.
class TheGoldenReport : public ::testing::Test {
public:
    TheGoldenReport()
    {
        Model::Attribution attribution([this](const Model::Fact& fact) { m_snapshot.history.Take(fact); });
        Model::LogReader reader(Model::ReadLogFile(LOG));
        for (Model::LogRecord record; reader.Next(record);) {
            attribution.Take(record);
            m_snapshot.taken = record.time + std::chrono::seconds(90);
            if (record.level >= Model::LogRecord::ERROR) {
                m_errors.emplace_back(record.line);
            }
        }
        m_snapshot.server = m_snapshot.history.Find(SERVER);
        m_snapshot.collection = CollectionOfTheLog();
        m_snapshot.installation.server = Model::ServerProcess();
        m_snapshot.installation.server->stat.pid = SERVER;
        m_snapshot.installation.server->stat.state = 'S';
        m_snapshot.processes = {Running(10002, "base", "based.sh"), Running(10245, "radio", "tuner.sh")};
        m_snapshot.notes = {"2 record(s) were lost before they reached the log."};
    }

    std::string Page()
    {
        const std::vector<Model::BundleStatus> bundles = StatusOf(m_snapshot);
        std::vector<std::string> notes;
        Verbs::Report report{
            m_snapshot,
            bundles,
            {{"socket-missing", true, "The server does not answer <requests>.", "No bundle can be deleted by request.",
              "systemctl restart bundle-server"},
             {"disk-space", false, "The file system of /data has 3 % left.", "An update may fail.", "df /data"}},
            Model::ReadTimeline({Model::LogLocation::FILE, LOG, ""}, {}, notes),
            m_errors,
            {{"bundlectl", "1.2.3"}, {"kernel", "6.1.0"}}};
        return ReportPage(report);
    }

private:
    Model::Snapshot m_snapshot;
    std::vector<std::string> m_errors;
};

} // namespace

TEST_F(TheGoldenReport, IsThePageOfAFixedSystem)
{
    const std::string page = Page();
    const std::string path = GOLDEN "/report.html";
    if (std::getenv("BUNDLE_SERVER_RENEW_GOLDEN") != nullptr) {
        WriteFile(path, page);
    }
    EXPECT_TRUE(page == ReadFile(path)) << "it differs from " << path << ":\n" << page;
}
