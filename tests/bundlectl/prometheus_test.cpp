// From a server to an alert: Prometheus scrapes the node exporter, which reads the file that bundlectl metrics writes.
#include "bundlectl/verb_test.h"

#include "common/unique_fd.h"
#include "support/files.h"
#include "support/private_mnt.h"
#include "support/scale.h"

#include <gtest/gtest.h>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

const auto* const g_privateMnt = ::testing::AddGlobalTestEnvironment(new PrivateMnt);

constexpr const char PROMETHEUS[] = "/usr/bin/prometheus";
constexpr const char NODE_EXPORTER[] = "/usr/bin/prometheus-node-exporter";
constexpr const char EXPORTER_ADDRESS[] = "127.0.0.1:9100";
constexpr const char PROMETHEUS_ADDRESS[] = "127.0.0.1:9090";

/// Gives this process a network of its own with nothing but loopback, so that its ports are free.
bool EnterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    const Common::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback{};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    return ::ioctl(socket.Get(), SIOCSIFFLAGS, &loopback) == 0;
}

class Monitoring : public VerbTest {
public:
    void SetUp() override
    {
        for (const char* const program : {PROMETHEUS, NODE_EXPORTER}) {
            if (::access(program, X_OK) != 0) {
                GTEST_SKIP() << program << " is not installed (script/install-dependencies --tests)";
            }
        }
        if (!EnterPrivateNetwork()) {
            GTEST_SKIP() << "no network namespace: " << std::strerror(errno);
        }
    }

    /// @param alerts the file of alerts
    void StartMonitoring(const std::string& alerts)
    {
        std::filesystem::create_directory(Note("textfiles"));
        WriteFile(Note("prometheus.yml"),
                  "global:\n  scrape_interval: 1s\n  evaluation_interval: 1s\nrule_files: [\"" + alerts +
                      "\"]\nscrape_configs:\n  - job_name: node\n    static_configs:\n      - targets: [\"" +
                      EXPORTER_ADDRESS + "\"]\n");
        m_exporter = std::make_unique<Program>(
            std::vector<std::string>{NODE_EXPORTER, "--collector.disable-defaults", "--collector.textfile",
                                     "--collector.textfile.directory=" + Note("textfiles"),
                                     std::string("--web.listen-address=") + EXPORTER_ADDRESS});
        m_prometheus = std::make_unique<Program>(std::vector<std::string>{
            PROMETHEUS, "--config.file=" + Note("prometheus.yml"), "--storage.tsdb.path=" + Note("series"),
            std::string("--web.listen-address=") + PROMETHEUS_ADDRESS});
    }

    /// Writes the metrics as the packaged timer does, and asks Prometheus.
    std::string Ask(const std::string& path) const
    {
        const Ended written = Run({"metrics", "--textfile", Note("textfiles/bundles.prom")});
        EXPECT_EQ(written.status, 0) << written.errors;
        return RunToEnd("/bin/busybox", {"wget", "-q", "-O", "-", "http://" + std::string(PROMETHEUS_ADDRESS) + path})
            .output;
    }

    /// Whether the answer has all parts within a time.
    ::testing::AssertionResult Answers(std::chrono::seconds patience, const std::string& path,
                                       const std::vector<std::string>& parts) const
    {
        std::string answer;
        const bool isTold = Eventually(patience, [&] {
            answer = Ask(path);
            return std::all_of(parts.begin(), parts.end(), [&](const std::string& part) { return Has(answer, part); });
        });
        return (isTold ? ::testing::AssertionSuccess() : ::testing::AssertionFailure())
               << answer << m_prometheus->Errors() << m_exporter->Errors();
    }

private:
    std::unique_ptr<Program> m_exporter;
    std::unique_ptr<Program> m_prometheus;
};

} // namespace

// The alert waits for two minutes, and so does the long form. In the short form it does not wait.
TEST_F(Monitoring, ShowsTheServersFactsAndRaisesTheAlertOfACrashLoop)
{
    collection.Bundle("radio").Item("tuner.sh", Shell("exit 2")).Write();
    collection.Bundle("clock").Copy("clockd", TEST_SLEEPER).Write();
    Serve();
    std::string alerts = ReadFile(ALERTS);
    for (std::size_t wait = 0; !IsLongForm() && (wait = alerts.find("for: 2m")) != std::string::npos;) {
        alerts.replace(wait, std::strlen("for: 2m"), "for: 0s");
    }
    WriteFile(Note("alerts.yml"), alerts);
    StartMonitoring(Note("alerts.yml"));

    constexpr std::chrono::seconds patience(60);
    EXPECT_TRUE(Answers(patience, "/api/v1/query?query=bundle_item_up%7Bbundle=%22clock%22%7D",
                        {R"("item":"clockd")", R"("job":"node")", R"(,"1"])"}));
    EXPECT_TRUE(Answers(patience, "/api/v1/query?query=node_textfile_scrape_error", {R"(,"0"])"}));
    EXPECT_TRUE(Answers(Scaled(patience, std::chrono::seconds(300)), "/api/v1/alerts",
                        {R"("alertname":"BundleCrashLoop")", R"("state":"firing")",
                         "The item tuner.sh of the bundle radio dies again and again."}));
    EXPECT_FALSE(Has(Ask("/api/v1/alerts"), "clockd")) << "an item that is up raises no alert";
}
