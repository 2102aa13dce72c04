#include "sysroot.h"

#include "model/files.h"

#include <elf.h>
#include <glob.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <sstream>

namespace Lint {

namespace {

constexpr std::array<Machine, 7> MACHINES{{
    {"amd64", "x86_64", EM_X86_64, 64, "x86_64-linux-gnu"},
    {"armhf", "arm", EM_ARM, 32, "arm-linux-gnueabihf"},
    {"arm64", "aarch64", EM_AARCH64, 64, "aarch64-linux-gnu"},
    {"i386", "i686", EM_386, 32, "i386-linux-gnu"},
    {"riscv64", "riscv64", EM_RISCV, 64, "riscv64-linux-gnu"},
    {"ppc64el", "ppc64le", EM_PPC64, 64, "powerpc64le-linux-gnu"},
    {"s390x", "s390x", EM_S390, 64, "s390x-linux-gnu"},
}};

const Machine* OurMachine()
{
    static const Machine* const ours = []() -> const Machine* {
        const auto self = ReadElfFacts("/proc/self/exe");
        const auto* const found = std::find_if(MACHINES.begin(), MACHINES.end(), [&self](const Machine& machine) {
            return self && self->machine == machine.number && self->bits == machine.bits;
        });
        return found == MACHINES.end() ? MACHINES.data() : found;
    }();
    return ours;
}

} // namespace

const Machine* FindMachine(const std::string& name)
{
    if (name.empty()) {
        return OurMachine();
    }
    const auto* const found = std::find_if(MACHINES.begin(), MACHINES.end(), [&name](const Machine& machine) {
        return name == machine.name || name == machine.alias;
    });
    return found == MACHINES.end() ? nullptr : found;
}

std::string MachineNames()
{
    std::string names;
    for (const Machine& machine : MACHINES) {
        names += (names.empty() ? "" : ", ") + std::string(machine.name);
    }
    return names;
}

Sysroot::Sysroot(const Machine& machine, const std::string& root)
    : m_machine(machine), m_root(root), m_isKnown(!root.empty() || &machine == OurMachine())
{
    while (!m_root.empty() && m_root.back() == '/') {
        m_root.pop_back();
    }
    if (!m_isKnown) {
        return;
    }
    const std::string folder = machine.folder;
    m_directories = {"/lib",   "/usr/lib",   "/usr/local/lib", "/lib/" + folder, "/usr/lib/" + folder,
                     "/lib64", "/usr/lib64", "/lib32"};
    ReadLinkerConfiguration("/etc/ld.so.conf", 0);
    for (const std::string& directory : m_directories) {
        const std::string file = Resolve(directory + "/libc.so.6");
        const auto library = file.empty() ? std::nullopt : ReadElfFacts(file);
        if (library && library->machine == machine.number && library->bits == machine.bits) {
            m_glibc = library->glibcOffered;
            return;
        }
    }
}

void Sysroot::ReadLinkerConfiguration(const std::string& file, int depth)
{
    constexpr int deepest = 3;
    std::istringstream lines(Model::ReadFileAtMost(m_root + file).value_or(""));
    for (std::string line; depth < deepest && std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string first;
        std::string second;
        words >> first >> second;
        if (first == "include") {
            glob_t found{};
            if (::glob((m_root + second).c_str(), 0, nullptr, &found) == 0) {
                for (std::size_t i = 0; i < found.gl_pathc; ++i) {
                    ReadLinkerConfiguration(std::string(found.gl_pathv[i]).substr(m_root.size()), depth + 1);
                }
            }
            ::globfree(&found);
        } else if (!first.empty() && first.front() == '/') {
            m_directories.push_back(first);
        }
    }
}

// Absolute links of another root begin at that root. Empty when the file does not exist.
std::string Sysroot::Resolve(const std::string& path) const
{
    constexpr int mostLinks = 40;
    std::string rest = path;
    std::string done = m_root;
    for (int links = 0; !rest.empty();) {
        const std::size_t begin = std::min(rest.find_first_not_of('/'), rest.size());
        const std::size_t end = std::min(rest.find('/', begin), rest.size());
        const std::string next = rest.substr(begin, end - begin);
        rest.erase(0, end);
        if (next.empty() || next == ".") {
            continue;
        }
        if (next == "..") {
            done.resize(done.size() > m_root.size() ? done.rfind('/') : m_root.size());
            continue;
        }
        if (const auto target = Model::ReadLink(done + "/" + next)) {
            if (++links > mostLinks) {
                return {};
            }
            done = target->substr(0, 1) == "/" ? m_root : done;
            rest = *target + rest;
            continue;
        }
        done += "/" + next;
    }
    struct stat status {};
    return ::stat(done.c_str(), &status) == 0 ? done : std::string();
}

bool Sysroot::Has(const std::string& path) const
{
    return !Resolve(path).empty();
}

bool Sysroot::HasExecutable(const std::string& path) const
{
    constexpr mode_t anyone = 0111;
    struct stat status {};
    return ::stat(Resolve(path).c_str(), &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & anyone) != 0;
}

bool Sysroot::HasLibrary(const std::string& name, const std::vector<std::string>& directories) const
{
    struct stat status {};
    if (std::any_of(directories.begin(), directories.end(), [&name, &status](const std::string& directory) {
            return ::stat((directory + "/" + name).c_str(), &status) == 0;
        })) {
        return true;
    }
    return std::any_of(m_directories.begin(), m_directories.end(),
                       [this, &name](const std::string& directory) { return Has(directory + "/" + name); });
}

} // namespace Lint
