#include "files.h"
#include "findings_parts.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Model {

namespace {

constexpr std::uint64_t MEBIBYTE = std::uint64_t{1024} * 1024;

std::string FolderOf(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string Absolute(const std::string& path, const std::string& base)
{
    return path.empty() || path.front() == '/' ? path : base + "/" + path;
}

void ExamineConfiguration(Examination& examination)
{
    const Installation& installation = examination.snapshot.installation;
    if (!installation.settings.trouble.empty()) {
        examination.Error("configuration", "The configuration cannot be read: " + installation.settings.trouble + ".",
                          "The server does not start again with it.",
                          "Mend the file, or name another one with --config.");
    }
}

void ExaminePermissions(Examination& examination, const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0) {
        examination.Error("writable-by-all", path + " may be written by every user.",
                          "Whoever puts a bundle there runs programs as the server's user.", "chmod o-w " + path);
    }
}

void ExamineMount(Examination& examination, const std::string& path)
{
    struct stat status {};
    struct stat parent {};
    if (::stat(path.c_str(), &status) == 0 && ::stat((path + "/..").c_str(), &parent) == 0 &&
        status.st_dev != parent.st_dev) {
        examination.Warn("mount-point", "The collection " + path + " is a mount point.",
                         "When it is unmounted, its bundles vanish, and the server takes them for removed.",
                         "Let the service depend on the mount: RequiresMountsFor=" + path + " in its unit.");
    }
    struct statvfs mount {};
    if (::statvfs(path.c_str(), &mount) != 0) {
        return;
    }
    if ((mount.f_flag & ST_NOEXEC) != 0) {
        examination.Error("noexec", "The collection's file system is mounted with noexec.",
                          "No item of it can be executed.", "mount -o remount,exec " + path);
    }
    if ((mount.f_flag & ST_RDONLY) != 0) {
        examination.Warn("read-only", "The collection's file system is mounted read-only.",
                         "No bundle can be added, changed or deleted.", "mount -o remount,rw " + path);
    }
}

void ExamineCollection(Examination& examination)
{
    const Collection& collection = examination.snapshot.collection;
    if (!collection.trouble.empty()) {
        examination.Error("collection", "The collection cannot be read: " + collection.trouble + ".",
                          "The server loads no bundle from it.", "Make the directory, or correct the configuration.");
        return;
    }
    if (collection.path.empty()) {
        return;
    }
    ExaminePermissions(examination, collection.path);
    for (const DeclaredBundle& bundle : collection.bundles) {
        ExaminePermissions(examination, bundle.path);
    }
    ExamineMount(examination, collection.path);
}

void ExamineLoader(Examination& examination)
{
    const Installation& installation = examination.snapshot.installation;
    const std::string directory = Absolute(installation.settings.loaderDirectory, installation.base);
    if (directory.empty()) {
        return;
    }
    const std::string loader = directory + (directory.back() == '/' ? "" : "/") + "dyn_lib_process_loader";
    if (::access(loader.c_str(), X_OK) != 0) {
        examination.Error("loader", "The loader " + loader + " cannot be executed: " + std::strerror(errno) + ".",
                          "No library item of a bundle in process mode runs.",
                          "Install it there, or set server_submodule_dir in the configuration.");
    }
}

void ExamineLog(Examination& examination)
{
    const Installation& installation = examination.snapshot.installation;
    const std::string file = installation.server ? installation.server->logFile : "";
    if (!file.empty() && ::access(file.c_str(), F_OK) != 0) {
        examination.Error("log", "The server's log " + file + " cannot be written: " + std::strerror(errno) + ".",
                          "What it does is told on its standard error only, and bundlectl may see little of it.",
                          "Make " + FolderOf(file) + " for the server's user, and restart the service.");
    }
    const ServerHistory* const server = examination.snapshot.server;
    if (server != nullptr && server->lostRecords > 0) {
        examination.Warn("records-lost", std::to_string(server->lostRecords) + " records of the log were lost.",
                         "What happened then is unknown.", "Look whether the disk was full, or the journal is slow.");
    }
}

void ExamineSpace(Examination& examination, const std::string& path, const std::string& what)
{
    struct statvfs mount {};
    if (path.empty() || ::statvfs(path.c_str(), &mount) != 0 || mount.f_blocks == 0) {
        return;
    }
    const std::uint64_t space = static_cast<std::uint64_t>(mount.f_bavail) * mount.f_frsize;
    const bool isShort = space < 10 * MEBIBYTE && mount.f_bavail < mount.f_blocks / 10;
    const bool hasFewFiles = mount.f_files != 0 && mount.f_favail < 100;
    if (isShort || hasFewFiles) {
        examination.Error("disk-full",
                          "The file system of " + what + " " + path + " has " + std::to_string(space / 1024) +
                              " KiB and " + std::to_string(mount.f_favail) + " files left.",
                          "Records are lost, and bundles cannot be updated.", "Make room there: df -h " + path);
    }
}

void ExamineServiceFiles(Examination& examination)
{
    const auto& files = examination.places.serviceFiles;
    const bool isThere = std::any_of(files.begin(), files.end(),
                                     [](const std::string& file) { return ::access(file.c_str(), F_OK) == 0; });
    if (!isThere) {
        examination.Warn("no-service", "Neither a systemd unit nor an init script of the server is installed.",
                         "The server does not start with the machine, and nothing starts it again.",
                         "Install the package bundle-server, or a unit of your own.");
    }
}

} // namespace

void ExamineFiles(Examination& examination)
{
    ExamineConfiguration(examination);
    ExamineCollection(examination);
    ExamineLoader(examination);
    ExamineLog(examination);
    ExamineSpace(examination, examination.snapshot.collection.path, "the collection");
    const LogLocation& log = examination.snapshot.installation.log;
    ExamineSpace(examination, log.kind == LogLocation::FILE ? FolderOf(log.path) : "", "the log");
    ExamineServiceFiles(examination);
}

} // namespace Model
