// The exercises on a bundle's files, its scripts and the server's log.
#include "common/unique_fd.h"
#include "drill.h"
#include "model/end_name.h"
#include "private_run.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace Trials {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds SLOWNESS(4000);
/// The server scans once a second, and waits a second between stop and start.
constexpr std::chrono::milliseconds NOTICE(5000);

/// A launch takes a second. During it, a bundle whose item has died cannot be stopped.
constexpr std::chrono::milliseconds LAUNCH(1500);

const std::string SPARE = std::string(PRIVATE_DIRECTORY) + "/spare";
const std::string FILLER = std::string(PRIVATE_DIRECTORY) + "/log/filler";
const std::string LOG = std::string(PRIVATE_DIRECTORY) + "/log/bundle-server.log";

/// Replaces a script, which may be missing, by one that sleeps first. Restores the script at the end of the scope.
class SlowScript {
public:
    SlowScript(const std::string& bundle, const std::string& name) : m_bundle(bundle), m_name(name)
    {
        fs::create_directories(SPARE);
        fs::create_directories(bundle + "/script");
        m_hasOriginal = fs::exists(Script());
        if (m_hasOriginal) {
            fs::rename(Script(), Original());
        }
        std::ofstream file(SPARE + "/script");
        file << "#!/bin/sh\nsleep " << SLOWNESS.count() / 1000 << "\n"
             << (m_hasOriginal ? "exec \"${0%/*}/.original." + name + "\"\n" : "");
        file.close();
        fs::permissions(SPARE + "/script", fs::perms(0755));
        fs::rename(SPARE + "/script", Script());
    }
    SlowScript(const SlowScript&) = delete;
    SlowScript& operator=(const SlowScript&) = delete;
    ~SlowScript()
    {
        std::error_code ignored;
        if (m_hasOriginal) {
            fs::rename(Original(), Script(), ignored);
        } else {
            fs::remove(Script(), ignored);
        }
    }

    /// Called when the bundle has moved.
    void Follow(const std::string& bundle) { m_bundle = bundle; }

private:
    std::string Script() const { return m_bundle + "/script/" + m_name; }
    std::string Original() const { return m_bundle + "/script/.original." + m_name; }

    std::string m_bundle;
    const std::string m_name;
    bool m_hasOriginal = false;
};

/// Fills a file system.
void Fill(const std::string& path)
{
    const Common::UniqueFd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    std::string block(4096, 'x');
    while (!block.empty()) {
        if (::write(file.Get(), block.data(), block.size()) <= 0) {
            block.resize(block.size() / 2);
        }
    }
}

/// The bundle's shared libraries, relative to it.
std::vector<std::string> LibrariesOf(const std::string& bundle)
{
    std::vector<std::string> libraries;
    for (const auto& entry : fs::recursive_directory_iterator(bundle)) {
        const std::string name = entry.path().filename().string();
        const bool isLibrary = entry.path().extension() == ".so" || name.find(".so.") != std::string::npos;
        if (isLibrary && entry.is_regular_file() && !entry.is_symlink()) {
            libraries.push_back(entry.path().lexically_relative(bundle).string());
        }
    }
    std::sort(libraries.begin(), libraries.end());
    return libraries;
}

/// A description of what became of the items that are down.
std::string TellDown(const DrilledBundle::Moment& now)
{
    std::string text;
    for (const DrilledBundle::Item& item : now.items) {
        if (!item.isUp) {
            const std::string end =
                item.ends.empty() ? "" : Model::NameOfEnd(item.ends.back().isSignal, item.ends.back().number);
            text += (text.empty() ? "" : ", ") + item.name + (end.empty() ? "" : " (" + end + ")");
        }
    }
    return text.empty() ? "Without it all items are up." : "Without it these are down: " + text + ".";
}

} // namespace

void MountDrillLog(const std::string& directory)
{
    fs::create_directories(directory);
    if (::mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755,size=8m") != 0) {
        throw std::system_error(errno, std::generic_category(), directory);
    }
}

/// The monitor relaunches items whatever else the server is doing.
void Drill::KillOneMeanwhile(const std::string& when, const std::function<bool(const Moment&, const Item&)>& isBack,
                             DrillResult& result)
{
    const Moment before = m_bundle.Look();
    const auto item = std::find_if(before.items.begin(), before.items.end(),
                                   [](const Item& other) { return !other.isThread && other.pid > 0; });
    if (item == before.items.end()) {
        return; // nothing supervises threads
    }
    ::kill(item->pid, SIGKILL);
    if (m_bundle.WaitUntil([&](const Moment& now) { return isBack(now, *item); }, m_settings.patience)) {
        result.Pass(item->name + " was killed and run again " + when + ".");
    } else {
        result.Fail(item->name + " was killed " + when + ", and was not run again.");
    }
}

void Drill::SlowUpdate(DrillResult& result)
{
    {
        const SlowScript slow(m_bundle.Path(), "update.sh");
        if (!m_bundle.WaitUntil([](const Moment& now) { return now.runsScript; }, NOTICE)) {
            result.Fail("The server does not run update.sh.");
            return;
        }
        const auto isBack = [](const Moment& now, const Item& killed) {
            const Item* const item = now.Find(killed.name);
            return item != nullptr && item->isUp && item->pid != killed.pid && now.runsScript;
        };
        KillOneMeanwhile("while update.sh took " + Model::SpanText(SLOWNESS), isBack, result);
        // The killed item is already renewed, so the comparison is with this moment.
        if (m_bundle.WaitForRenewal(m_bundle.Look(), SLOWNESS + m_settings.patience)) {
            result.Pass("The bundle is up after the slow update.");
        } else {
            result.Fail("The bundle is not up after a slow update.");
        }
    }
    if (!m_bundle.Restart(m_settings.patience + m_settings.patience)) {
        result.Fail("The bundle is not up after the next update.");
    }
}

void Drill::SlowInstallation(DrillResult& result)
{
    const std::string aside = SPARE + "/bundle";
    if (!fs::exists(m_bundle.Path() + "/script/install.sh")) {
        result.LeaveOut("The bundle has no install.sh.");
        return;
    }
    fs::create_directories(SPARE);
    fs::rename(m_bundle.Path(), aside);
    const bool isGone =
        m_bundle.WaitUntil([](const Moment& now) { return now.state == DrilledBundle::UNKNOWN; }, m_settings.patience);
    {
        SlowScript slow(aside, "install.sh");
        fs::rename(aside, m_bundle.Path());
        slow.Follow(m_bundle.Path());
        const bool isUp =
            m_bundle.WaitUntil([](const Moment& now) { return now.isUp; }, NOTICE + SLOWNESS + m_settings.patience);
        if (isGone && isUp) {
            result.Pass("It was taken out, put back, and is up after a slow install.sh.");
        } else {
            result.Fail(isGone ? "It is not up after a slow install.sh."
                               : "The server does not notice that it was taken out.");
        }
    }
    if (!m_bundle.Restart(m_settings.patience + m_settings.patience)) {
        result.Fail("It is not up after the next update.");
    }
}

void Drill::RemoveLibraries(const Exercise& exercise)
{
    const std::vector<std::string> libraries = LibrariesOf(m_bundle.Path());
    if (libraries.empty()) {
        DrillResult result;
        result.name = exercise.name;
        result.LeaveOut("The bundle has no library.");
        m_sink(result);
    }
    for (const std::string& library : libraries) {
        Do({exercise.kind, exercise.name + ":" + library}, "",
           [this, &library](DrillResult& result) { RemoveLibrary(library, result); });
    }
}

void Drill::RemoveLibrary(const std::string& library, DrillResult& result)
{
    const std::string file = m_bundle.Path() + "/" + library;
    const std::string aside = SPARE + "/library";
    fs::create_directories(SPARE);
    const Moment before = m_bundle.Look();
    fs::rename(file, aside);
    ::utimensat(AT_FDCWD, m_bundle.Path().c_str(), nullptr, 0); // the server does not watch this file
    m_bundle.WaitForRenewal(before, NOTICE);
    result.Pass(TellDown(m_bundle.Look()));
    if (IsOfThreads()) {
        result.Pass("The server keeps what it has loaded, so it is started again.");
        RenewServer();
        result.Pass(TellDown(m_bundle.Look()));
    }
    fs::rename(aside, file);
    if (m_bundle.Restart(m_settings.patience + m_settings.patience)) {
        result.Pass("With it back, all are up again.");
    } else {
        result.Fail("With it back, not all are up again. " + TellDown(m_bundle.Look()));
    }
}

void Drill::ExchangeBundle(DrillResult& result)
{
    const std::string other = SPARE + "/bundle";
    fs::remove_all(other);
    fs::create_directories(SPARE);
    fs::copy(m_bundle.Path(), other, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    const Moment before = m_bundle.Look();
    const Model::Time begin = Model::Now();
    if (::renameat2(AT_FDCWD, m_bundle.Path().c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) != 0) {
        throw std::system_error(errno, std::generic_category(), m_bundle.Path());
    }
    if (m_bundle.WaitForRenewal(before, m_settings.patience + NOTICE)) {
        result.Pass("It was exchanged by a copy, which was up after " + Model::SpanText(Model::Now() - begin) + ".");
        m_bundle.Wait(m_settings.settle);
        if (!m_bundle.Look().isUp) {
            result.Fail("It did not stay up.");
        }
    } else {
        result.Fail("It was exchanged by a copy, which is not up.");
    }
    fs::remove_all(other);
}

void Drill::FillLog(DrillResult& result)
{
    Fill(FILLER);
    // Read from the server's children, because the log does not show it.
    const std::set<pid_t> children = ChildrenOf(m_bundle.Server());
    const auto isBack = [&](const Moment&, const Item&) {
        const std::set<pid_t> now = ChildrenOf(m_bundle.Server());
        return std::any_of(now.begin(), now.end(), [&children](pid_t child) { return children.count(child) == 0; });
    };
    if (IsOfThreads()) {
        ::utimensat(AT_FDCWD, m_bundle.Path().c_str(), nullptr, 0);
        m_bundle.Wait(NOTICE);
        const std::string when = " when the bundle is touched while the log's disk is full.";
        IsAlive(m_bundle.Server()) ? result.Pass("The server goes on" + when) : result.Fail("The server ends" + when);
    }
    KillOneMeanwhile("while the log's disk was full", isBack, result);
    fs::remove(FILLER);
    m_bundle.Wait(LAUNCH);
    const std::uintmax_t size = fs::file_size(LOG);
    if (!m_bundle.Restart(m_settings.patience + m_settings.patience)) {
        result.Fail("The bundle is not up again afterwards.");
    } else if (fs::file_size(LOG) == size) {
        result.Fail("The log does not go on when there is space again.");
    } else {
        result.Pass("The log goes on when there is space again.");
    }
}

} // namespace Trials
