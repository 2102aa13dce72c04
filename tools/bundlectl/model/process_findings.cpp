#include "findings_parts.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

namespace Model {

namespace {

constexpr std::string_view DELETED = " (deleted)";

std::string Named(pid_t pid)
{
    return "process " + std::to_string(pid);
}

void ExamineClock(Examination& examination)
{
    constexpr std::chrono::seconds of2020{1577836800};
    if (examination.snapshot.taken.time_since_epoch() < of2020) {
        examination.Error("clock", "The clock says a time before 2020.",
                          "Times in the log do not tell when something happened, and changes may be missed.",
                          "Set the clock: timedatectl set-time, or a time service such as chrony.");
    }
}

void ExamineServiceDirectory(Examination& examination)
{
    const std::string& directory = examination.places.serviceDirectory;
    struct stat status {};
    if (::stat(directory.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0) {
        examination.Error("service-directory", directory + " may be written by every user.",
                          "Anybody can put a socket in the place of the server's.", "chmod 0755 " + directory);
    }
}

void ExamineSocket(Examination& examination, const ServerProcess& server)
{
    const ServerHistory* const history = examination.snapshot.server;
    const bool isReady = history != nullptr && history->ready;
    if (server.isReadable && isReady && !server.isServing) {
        examination.Error("not-serving", "The server has started its bundles, but its socket does not answer.",
                          "No bundle can be deleted by request, and nothing tells that it is ready.",
                          "See why: bundlectl log --level error. Restart the service.");
    }
}

void ExamineProgram(Examination& examination, const ServerProcess& server)
{
    const std::string link = examination.proc.Link(server.stat.pid, "exe").value_or("");
    struct stat status {};
    const bool isDeleted = link.size() > DELETED.size() && link.substr(link.size() - DELETED.size()) == DELETED;
    const bool isNewer = !link.empty() && !isDeleted && ::stat(link.c_str(), &status) == 0 &&
                         Time(std::chrono::seconds(status.st_mtim.tv_sec)) >
                             examination.proc.StartTime(server.stat) + std::chrono::seconds(1);
    if (isDeleted || isNewer) {
        examination.Warn("old-server", "The server is older than its program file.",
                         "It still runs the code from before the update.", "Restart the service.");
    }
}

/// The soft limit of a line of /proc/PID/limits; empty: it may not be read.
std::optional<std::uint64_t> OpenFilesLimit(const Proc& proc, pid_t pid)
{
    const std::string text = proc.Read(pid, "limits").value_or("");
    constexpr std::string_view name = "Max open files";
    const std::size_t at = text.find(name);
    if (at == std::string::npos) {
        return std::nullopt;
    }
    return std::strtoull(text.c_str() + at + name.size(), nullptr, 10);
}

void ExamineLimits(Examination& examination, const ServerProcess& server)
{
    const std::optional<std::uint64_t> limit = OpenFilesLimit(examination.proc, server.stat.pid);
    constexpr std::uint64_t least = 256;
    if (limit && *limit < least) {
        examination.Error("descriptor-limit", "The server may open " + std::to_string(*limit) + " files only.",
                          "With many items it can launch no further one.", "Set LimitNOFILE=4096 in its unit.");
    }
}

void ExamineMonitor(Examination& examination)
{
    const ServerHistory* const history = examination.snapshot.server;
    if (history != nullptr && history->monitor == ServerHistory::Monitor::DIED) {
        examination.Error("monitor-dead",
                          "The server's monitor has ended: " + std::string(std::strerror(history->monitorError)) + ".",
                          "No item is launched again when it dies.", "Restart the service.");
    }
    constexpr std::chrono::seconds patience{30};
    if (history != nullptr) {
        for (const auto& [thread, script] : history->running) {
            if (examination.snapshot.taken - script.began > patience) {
                examination.Error("script-holds",
                                  "The script " + script.name + " of the bundle \"" + script.bundle +
                                      "\" has run for " + SpanText(examination.snapshot.taken - script.began) + ".",
                                  "As long as it runs, the server deals with no other bundle.",
                                  "Look what it waits for, and end it.");
            }
        }
    }
}

void ExamineItems(Examination& examination)
{
    for (const BundleStatus& bundle : examination.bundles) {
        for (const ItemStatus& item : bundle.items) {
            if (!item.further.empty()) {
                examination.Error("runs-twice",
                                  "The item " + item.name + " of the bundle \"" + bundle.name +
                                      "\" runs twice, also as " + Named(item.further.front()) + ".",
                                  "Both may write the same files and want the same ports.",
                                  "End those that a former server left: bundlectl orphans --end");
            }
            if (item.isCrashLooping) {
                examination.Error("crash-loop",
                                  "The item " + item.name + " of the bundle \"" + bundle.name +
                                      "\" dies again and again.",
                                  "It does not do its work, and fills the log.", "bundlectl why " + bundle.name);
            }
        }
    }
}

void ExamineStrays(Examination& examination)
{
    std::size_t orphans = 0;
    for (const BundleProcess& process : examination.snapshot.processes) {
        if (process.role == ProcessRole::ESCAPED) {
            examination.Warn("escaped",
                             "The " + Named(process.stat.pid) + " of the bundle \"" + process.bundle +
                                 "\" has left the server's processes.",
                             "The server neither ends it nor launches it again.",
                             "Start it in the foreground: without setsid, daemon or \"&\".");
        }
        orphans += process.role == ProcessRole::LEFT_OVER ? 1 : 0;
    }
    if (orphans > 0) {
        examination.Error("orphans", std::to_string(orphans) + " process(es) of a former server are left.",
                          "They hold ports and files, and nothing supervises them.", "bundlectl orphans --end");
    }
}

// A server in a container has a service directory of its own.
void ExamineOthers(Examination& examination)
{
    for (const ServerProcess& other : examination.snapshot.installation.others) {
        if (other.isOfOurMounts.value_or(false)) {
            examination.Error("several-servers", "Another bundle server runs, " + Named(other.stat.pid) + ".",
                              "Only one can serve, and both launch items.", "End one of them.");
        }
    }
}

} // namespace

void ExamineProcesses(Examination& examination)
{
    const Installation& installation = examination.snapshot.installation;
    ExamineClock(examination);
    ExamineServiceDirectory(examination);
    ExamineStrays(examination);
    if (!installation.server) {
        examination.Error("no-server", "No bundle server runs.", "No bundle runs, and none is supervised.",
                          "Start the service, or see its log for the reason: bundlectl log --level error");
        return;
    }
    ExamineOthers(examination);
    ExamineSocket(examination, *installation.server);
    ExamineProgram(examination, *installation.server);
    ExamineLimits(examination, *installation.server);
    ExamineMonitor(examination);
    ExamineItems(examination);
}

} // namespace Model
