// Checks whether programs and libraries fit the machine on which they will run.
#include "model/files.h"
#include "printable.h"
#include "subject.h"

#include <item_kind.h>

#include <array>

namespace Lint {

namespace {

constexpr Rule MACHINE_WRONG{"machine-wrong", Severity::ERROR, "a program is made for another machine",
                             "It cannot be executed or loaded there: \"execl fail.errno[8].\".",
                             "Build it for the machine, or name the machine with --arch."};
constexpr Rule GLIBC_TOO_NEW{"glibc-too-new", Severity::ERROR, "a program needs a later C library",
                             "The dynamic linker refuses a program that needs functions its C library does not have.",
                             "Build it against the device's sysroot."};
constexpr Rule LIBRARY_NOT_FOUND{"library-not-found", Severity::ERROR, "a library is not found",
                                 "The dynamic linker does not start a program without all of its libraries.",
                                 "Install the library, or link with -Wl,-rpath,'$ORIGIN' and put it beside the item."};
constexpr Rule ENTRY_MISSING{"entry-missing", Severity::ERROR, "the entry function is not exported",
                             "The server, or the loader, looks it up by name and does not find it.",
                             "Declare it extern \"C\" with default visibility, or correct entry_func."};
constexpr Rule LEAVES_GROUP{"leaves-group", Severity::WARNING, "an item can leave the server's process group",
                            "An item that calls setsid, setpgid or daemon is no longer supervised, and can end the "
                            "supervision of all other items.",
                            "Keep the program in the foreground; many have an option for it."};

class ElfCheck {
public:
    ElfCheck(const Check& check, const SubjectItem& item, const ElfFacts& elf)
        : m_check(check), m_item(item), m_elf(elf)
    {}

    void Run()
    {
        const Machine& machine = m_check.sysroot.Target();
        if (m_elf.machine != machine.number || m_elf.bits != machine.bits) {
            Add(MACHINE_WRONG, "It is no program for " + std::string(machine.name) + ".");
            return; // its libraries are another machine's
        }
        CheckGlibc();
        CheckLibraries();
        CheckFunctions();
    }

private:
    void Add(const Rule& rule, const std::string& text) { m_check.Add(rule, m_item.file, 0, text); }

    void CheckGlibc();
    void CheckLibraries();
    void CheckFunctions();

    const Check& m_check;
    const SubjectItem& m_item;
    const ElfFacts& m_elf;
};

std::string TextOf(const Version& version)
{
    return std::to_string(version.first) + "." + std::to_string(version.second);
}

void ElfCheck::CheckGlibc()
{
    const auto offered = m_check.sysroot.GlibcVersion();
    if (offered && m_elf.glibcNeeded && *offered < *m_elf.glibcNeeded) {
        Add(GLIBC_TOO_NEW, "It needs version " + TextOf(*m_elf.glibcNeeded) + "; there is " + TextOf(*offered) + ".");
    }
}

void ElfCheck::CheckLibraries()
{
    if (!m_check.sysroot.IsKnown()) {
        return;
    }
    std::vector<std::string> directories;
    const std::string origin = m_item.file.substr(0, m_item.file.rfind('/'));
    for (std::string path : m_elf.runPaths) {
        for (const char* const word : {"${ORIGIN}", "$ORIGIN"}) {
            const std::size_t place = path.find(word);
            if (place != std::string::npos) {
                path.replace(place, std::string(word).size(), origin);
            }
        }
        directories.push_back(path);
    }
    for (const std::string& name : m_elf.needed) {
        const bool isPath = name.find('/') != std::string::npos;
        if (isPath ? !m_check.sysroot.Has(name) : !m_check.sysroot.HasLibrary(name, directories)) {
            Add(LIBRARY_NOT_FOUND, "It needs " + Printable(name) + ".");
        }
    }
}

void ElfCheck::CheckFunctions()
{
    const bool isLibrary = SystemServer::KindOf(m_item.name) == SystemServer::ItemKind::LIBRARY;
    if (isLibrary && m_elf.exported.count(m_item.entryFunction) == 0) {
        Add(ENTRY_MISSING, "It has no function \"" + Printable(m_item.entryFunction) + "\".");
    }
    for (const char* const function : {"setsid", "setpgid", "setpgrp", "daemon"}) {
        if (m_elf.imported.count(function) != 0) {
            Add(LEAVES_GROUP, "It calls " + std::string(function) + ".");
        }
    }
}

} // namespace

void CheckElf(const Check& check, const SubjectItem& item, const ElfFacts& elf)
{
    ElfCheck(check, item, elf).Run();
}

Rules ElfRules()
{
    return {&MACHINE_WRONG, &GLIBC_TOO_NEW, &LIBRARY_NOT_FOUND, &ENTRY_MISSING, &LEAVES_GROUP};
}

} // namespace Lint
