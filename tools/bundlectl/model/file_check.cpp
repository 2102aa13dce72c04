#include "file_check.h"

#include "elf_file.h"
#include "files.h"
#include "log_source.h"
#include "printable.h"

#include <item_kind.h>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sstream>

namespace Model {

namespace {

using Fault = std::optional<FileFault>;
using SystemServer::ItemKind;

FileFault FaultOf(const std::string& path, const std::string& what, const std::string& remedy)
{
    return {Printable(path) + " " + what, remedy};
}

Fault CheckPresence(const std::string& path)
{
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        const int error = errno;
        if (error == EACCES) {
            return std::nullopt; // it cannot be examined, so nothing is known
        }
        if (::lstat(path.c_str(), &status) == 0) {
            return FaultOf(path, "is a link that leads nowhere.", "ls -l " + Printable(path));
        }
        return FaultOf(
            path, error == ENOENT ? "does not exist." : std::string("cannot be read: ") + std::strerror(error) + ".",
            "Put the file there and touch the bundle's directory.");
    }
    if (!S_ISREG(status.st_mode)) {
        return FaultOf(path, "is no regular file.", "Put the program in its place and touch the bundle's directory.");
    }
    return std::nullopt;
}

Fault CheckPermission(const std::string& path)
{
    struct stat status {};
    constexpr mode_t anyone = 0111;
    if (::stat(path.c_str(), &status) == 0 && (status.st_mode & anyone) == 0) {
        return FaultOf(path, "may not be executed.", "chmod +x " + Printable(path));
    }
    struct statvfs system {};
    if (::statvfs(path.c_str(), &system) == 0 && (system.f_flag & ST_NOEXEC) != 0) {
        return FaultOf(path, "lies on a file system that is mounted \"noexec\".", "mount -o remount,exec ...");
    }
    return std::nullopt;
}

/// The interpreter that a script's first line names; empty: none.
std::string InterpreterOfScript(const std::string& head)
{
    if (head.compare(0, 2, "#!") != 0) {
        return {};
    }
    const std::size_t begin = head.find_first_not_of(" \t", 2);
    return begin == std::string::npos ? std::string()
                                      : head.substr(begin, head.find_first_of(" \t\r\n", begin) - begin);
}

Fault CheckMachine(const std::string& path, const ElfFile& file)
{
    const auto ours = ReadElf("/proc/self/exe");
    if (ours && (ours->bits != file.bits || ours->machine != file.machine)) {
        return FaultOf(path, "is made for another kind of machine.", "Install the bundle that is made for this one.");
    }
    return std::nullopt;
}

Fault CheckProgram(const std::string& path)
{
    if (Fault fault = CheckPermission(path)) {
        return fault;
    }
    const auto elf = ReadElf(path);
    if (elf) {
        if (Fault fault = CheckMachine(path, *elf)) {
            return fault;
        }
    }
    constexpr std::size_t line = 256;
    const std::string head = ReadFileAtMost(path, line).value_or("#!");
    const std::string interpreter = elf ? elf->interpreter : InterpreterOfScript(head);
    if (!interpreter.empty() && ::access(interpreter.c_str(), F_OK) != 0) {
        return FaultOf(path, "needs the interpreter " + Printable(interpreter) + ", which does not exist.",
                       "Install it, or name another one in the file.");
    }
    if (!elf && head.compare(0, 2, "#!") != 0) {
        return FaultOf(path, "is neither a program nor a script that names its interpreter in its first line.",
                       "Write #!/bin/sh there, or give the item a name that ends in \".sh\".");
    }
    return std::nullopt;
}

/// Lets the dynamic linker list the libraries that it would load. This runs none of their code. After a missing
/// library, glibc's linker continues only if the variable requests the list. Other linkers ignore the variable.
std::unique_ptr<LogSource> ListLibraries(const std::string& linker, const std::string& path)
{
    if (linker.find("/ld-linux") != std::string::npos) {
        return ReadCommand({linker, path}, {"LD_TRACE_LOADED_OBJECTS=1"});
    }
    return ReadCommand({linker, "--list", path});
}

std::string MissingLibraries(const std::string& path)
{
    const auto ours = ReadElf("/proc/self/exe");
    if (!ours || ours->interpreter.empty()) {
        return {};
    }
    const auto source = ListLibraries(ours->interpreter, path);
    std::string text;
    std::array<char, 4096> buffer;
    while (const std::size_t size = source->Read(buffer.data(), buffer.size())) {
        text.append(buffer.data(), size);
    }
    std::istringstream lines(text);
    std::string missing;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t end = line.find(" => not found");
        if (end != std::string::npos) {
            missing += (missing.empty() ? "" : ", ") +
                       line.substr(line.find_first_not_of(" \t"), end - line.find_first_not_of(" \t"));
        }
    }
    return Printable(missing);
}

Fault CheckLibrary(const std::string& path, const std::string& function)
{
    const auto elf = ReadElf(path);
    if (!elf) {
        if (::access(path.c_str(), R_OK) != 0) {
            return std::nullopt;
        }
        return FaultOf(path, "is no library.", "Install the bundle anew.");
    }
    if (Fault fault = CheckMachine(path, *elf)) {
        return fault;
    }
    const std::string missing = MissingLibraries(path);
    if (!missing.empty()) {
        return FaultOf(path, "needs libraries that are not found: " + missing + ".", "Install them.");
    }
    if (!OffersFunction(path, function).value_or(true)) {
        return FaultOf(path, "has no function \"" + function + "\".",
                       "Correct entry_func in the manifest; a C++ function needs extern \"C\".");
    }
    return std::nullopt;
}

} // namespace

Fault CheckItem(const DeclaredItem& item, bool isThread)
{
    const ItemKind kind = SystemServer::KindOf(item.name);
    if (Fault fault = CheckPresence(item.file)) {
        return fault;
    }
    if (kind == ItemKind::LIBRARY) {
        return CheckLibrary(item.file, item.entryFunction);
    }
    if (isThread) {
        return FileFault{"The item " + item.name + " is no library, and the bundle's mode is that of threads.",
                         "Set bundle_load_mode = 0, or remove the item."};
    }
    return kind == ItemKind::BINARY ? CheckProgram(item.file) : std::nullopt; // /bin/sh reads a ".sh"
}

} // namespace Model
