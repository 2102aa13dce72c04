// Checks whether the items' files exist and can be run.
#include "model/files.h"
#include "printable.h"
#include "subject.h"

#include <item_kind.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace Lint {

namespace {

using SystemServer::ItemKind;

constexpr Rule ITEM_MISSING{
    "item-missing", Severity::ERROR, "an item's file is missing",
    "The bundle becomes Active without the item. A missing \".sh\" item is run again once a second.",
    "Put the file below bin/, or correct item_name."};
constexpr Rule ITEM_NO_FILE{"item-no-file", Severity::ERROR, "an item is no regular file",
                            "Only a regular file can be executed or loaded.", "Put the program in its place."};
constexpr Rule ITEM_NOT_EXECUTABLE{"item-not-executable", Severity::ERROR, "an item may not be executed",
                                   "A program is executed itself: without the permission it ends with status 1.",
                                   "chmod +x FILE."};
constexpr Rule ITEM_NO_PROGRAM{"item-no-program", Severity::ERROR, "an item is neither a program nor a script",
                               "It is no ELF file, and its first line names no interpreter, so it cannot be executed.",
                               "Write #!/bin/sh in the first line, or end the item's name in \".sh\"."};
constexpr Rule INTERPRETER_MISSING{
    "interpreter-missing", Severity::ERROR, "an interpreter is missing",
    "The program that the first line names does not exist there, so nothing can be executed.",
    "Install the interpreter, or name another one."};
constexpr Rule INTERPRETER_NOT_EXECUTABLE{
    "interpreter-not-executable", Severity::ERROR, "an interpreter may not be executed",
    "The program that the first line names lacks the execute permission or is no file, so nothing can be executed.",
    "Set the interpreter's permission with chmod +x, or name another one."};
constexpr Rule ITEM_OUTSIDE{"item-outside-bundle", Severity::WARNING, "an item's name leads out of the bundle",
                            "What lies outside is not updated and not removed with the bundle.",
                            "Put the program below bin/."};
constexpr Rule ITEM_NO_LIBRARY{"item-no-library", Severity::ERROR, "an item that ends in \".so\" is no library",
                               "It is loaded by the dynamic linker, which takes shared objects only.",
                               "Link it with -shared, or give it another name."};

class ItemCheck {
public:
    ItemCheck(const Check& check, const SubjectItem& item) : m_check(check), m_item(item) {}
    void Run();

private:
    bool IsThere();
    void CheckProgram(const std::string& head, bool isElf);

    const Check& m_check;
    const SubjectItem& m_item;
    struct stat m_status {};
};

bool ItemCheck::IsThere()
{
    if (m_item.name.find("..") != std::string::npos) {
        m_check.Add(ITEM_OUTSIDE, m_check.bundle.manifestFile, m_item.line,
                    "\"" + Printable(m_item.name) + "\" has \"..\" in it.");
    }
    if (::stat(m_item.file.c_str(), &m_status) != 0) {
        const int error = errno;
        m_check.Add(ITEM_MISSING, m_check.bundle.manifestFile, m_item.line,
                    Printable(m_item.file) + ": " + std::strerror(error) + ".");
        return false;
    }
    if (!S_ISREG(m_status.st_mode)) {
        m_check.Add(ITEM_NO_FILE, m_item.file, 0, "It is a directory or a special file.");
        return false;
    }
    return true;
}

void ItemCheck::Run()
{
    if (!IsThere()) {
        return;
    }
    constexpr std::size_t most = std::size_t{64} * 1024;
    const std::string content = Model::ReadFileAtMost(m_item.file, most).value_or("");
    const ItemKind kind = SystemServer::KindOf(m_item.name);
    if (kind == ItemKind::SCRIPT) {
        CheckShellItem(m_check, m_item, content);
        return;
    }
    const auto elf = content.compare(0, 4, "\177ELF") == 0 ? ReadElfFacts(m_item.file) : std::nullopt;
    if (kind == ItemKind::LIBRARY) {
        if (!elf || !elf->isShared) {
            m_check.Add(ITEM_NO_LIBRARY, m_item.file, 0,
                        elf ? "It is a program that is linked to a fixed place." : "It is no ELF file.");
            return;
        }
    } else {
        CheckProgram(content, elf.has_value());
    }
    if (elf) {
        CheckElf(m_check, m_item, *elf);
        CheckInterpreterOf(m_check, m_item.file, elf->interpreter);
    }
}

void ItemCheck::CheckProgram(const std::string& head, bool isElf)
{
    constexpr mode_t anyone = 0111;
    if ((m_status.st_mode & anyone) == 0) {
        m_check.Add(ITEM_NOT_EXECUTABLE, m_item.file, 0, "No user has the execute permission.");
    }
    if (isElf) {
        return;
    }
    const std::string interpreter = InterpreterOf(head);
    if (interpreter.empty()) {
        m_check.Add(ITEM_NO_PROGRAM, m_item.file, 1, "The file begins otherwise.");
    } else {
        CheckInterpreterOf(m_check, m_item.file, interpreter);
    }
}

} // namespace

std::string InterpreterOf(const std::string& head)
{
    if (head.compare(0, 2, "#!") != 0) {
        return {};
    }
    const std::size_t begin = std::min(head.find_first_not_of(" \t", 2), head.size());
    return head.substr(begin, head.find_first_of(" \t\n", begin) - begin);
}

void CheckInterpreterOf(const Check& check, const std::string& file, const std::string& interpreter)
{
    if (interpreter.empty() || !check.sysroot.IsKnown() || check.sysroot.HasExecutable(interpreter)) {
        return;
    }
    if (check.sysroot.Has(interpreter)) {
        check.Add(INTERPRETER_NOT_EXECUTABLE, file, 1, "It is " + Printable(interpreter) + ".");
        return;
    }
    check.Add(INTERPRETER_MISSING, file, 1,
              Printable(interpreter) + " does not exist." +
                  (interpreter.back() == '\r' ? " The line ends with a carriage return, like those of DOS." : ""));
}

void CheckItems(const Check& check)
{
    for (const SubjectItem& item : check.bundle.items) {
        ItemCheck(check, item).Run();
    }
}

Rules ItemRules()
{
    return {&ITEM_MISSING,    &ITEM_NO_FILE,        &ITEM_NOT_EXECUTABLE,
            &ITEM_NO_PROGRAM, &INTERPRETER_MISSING, &INTERPRETER_NOT_EXECUTABLE,
            &ITEM_OUTSIDE,    &ITEM_NO_LIBRARY};
}

} // namespace Lint
