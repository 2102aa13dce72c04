#include "new_project.h"

#include "author/templates.h"
#include "printable.h"
#include "put/refusal.h"

#include <algorithm>
#include <map>
#include <string_view>

namespace NewBundle {

namespace {

using Words = std::map<std::string, std::string>;

constexpr unsigned FILE_MODE = 0644;
constexpr unsigned PROGRAM_MODE = 0755;

/// The template with each @WORD@ replaced.
std::string Fill(std::string_view name, const Words& words)
{
    const Template* found = TEMPLATES;
    while (found->name != name) {
        ++found;
    }
    std::string text = found->text;
    for (const auto& [word, value] : words) {
        const std::string mark = "@" + word + "@";
        for (std::size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size())) {
            text.replace(at, mark.size(), value);
        }
    }
    return text;
}

bool IsLetterOrDigit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

void RequireGoodName(const std::string& name)
{
    const bool isGood = std::all_of(name.begin(), name.end(),
                                    [](char c) { return IsLetterOrDigit(c) || c == '-' || c == '_' || c == '.'; });
    if (name.empty() || !IsLetterOrDigit(name.front()) || !isGood) {
        throw Put::Refusal(
            "\"" + Printable(name) +
            "\" is no name for a new bundle: take letters, digits, \"-\", \"_\" and \".\", and begin with a letter "
            "or a digit.");
    }
}

std::string Requirements(const std::vector<std::string>& required)
{
    std::string line;
    for (const std::string& name : required) {
        line += (line.empty() ? "bundle_dependencies = " : ", ") + name;
    }
    return line.empty() ? "" : "; These bundles start before this one.\n" + line + "\n";
}

/// The values that differ between projects.
Words WordsOf(const Wish& wish)
{
    Words words;
    std::string source = wish.name;
    std::replace_if(
        source.begin(), source.end(), [](char c) { return !IsLetterOrDigit(c); }, '_');
    const bool isScript = wish.language == Language::SCRIPT;
    const bool isLibrary = wish.language == Language::LIBRARY;
    const std::string item = source + (isScript ? ".sh" : isLibrary ? ".so" : "");
    words["NAME"] = wish.name;
    words["SOURCE"] = source;
    words["ITEM"] = item;
    words["MODE"] = wish.isThread ? "1" : "0";
    words["REQUIRES"] = Requirements(wish.required);
    words["ENTRY"] = isLibrary ? "\nentry_func = item_main" : "";
    words["LANGUAGES"] = isScript ? "NONE" : "CXX";
    words["BUILD_ITEM"] = isScript ? "" : Fill(isLibrary ? "library.cmake" : "program.cmake", words);
    words["COPY_ITEM"] = isScript ? "" : "    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:item> ${bundle}/bin/\n";
    words["ITEM_TARGET"] = isScript ? "" : "item ";
    words["COMPILER"] = isScript ? "" : "a C++ compiler ";
    words["ITEM_PATH"] = isScript ? "`bundle/bin/" + item + "`" : "`src/" + source + ".cpp`";
    words["KIND"] = isLibrary ? "a library that the server's loader runs in a process of its own"
                              : "a program that the server runs as a child process";
    words["HEAD"] = "int main()";
    if (isLibrary) {
        const char* const result = wish.isThread ? "" : " What it returns is the exit status of the process.";
        words["HEAD"] =
            "/// The function that the manifest names." + std::string(result) + "\nextern \"C\" int item_main()";
    }
    return words;
}

} // namespace

void RequireGoodNames(const Wish& wish)
{
    RequireGoodName(wish.name);
    for (const std::string& name : wish.required) {
        RequireGoodName(name);
        if (name == wish.name) {
            throw Put::Refusal("\"" + name + "\" cannot require itself: the server would refuse it.");
        }
    }
}

std::vector<ProjectFile> Compose(const Wish& wish)
{
    const Words words = WordsOf(wish);
    std::vector<ProjectFile> files{
        {".gitignore", Fill("gitignore", words), FILE_MODE},
        {"CMakeLists.txt", Fill("CMakeLists.txt", words), FILE_MODE},
        {"CMakePresets.json", Fill("CMakePresets.json", words), FILE_MODE},
        {"README.md", Fill("README.md", words), FILE_MODE},
        {"bundle/BundleManifest.ini", Fill("BundleManifest.ini", words), FILE_MODE},
        {"bundle/script/install.sh", Fill("install.sh", words), PROGRAM_MODE},
        {"bundle/script/uninstall.sh", Fill("uninstall.sh", words), PROGRAM_MODE},
        {"bundle/script/update.sh", Fill("update.sh", words), PROGRAM_MODE},
        {"cmake/armhf.cmake", Fill("armhf.cmake", words), FILE_MODE},
    };
    if (wish.language == Language::SCRIPT) {
        files.push_back({"bundle/bin/" + words.at("ITEM"), Fill("item.sh", words), PROGRAM_MODE});
    } else {
        const char* const source = wish.isThread ? "thread.cpp" : "program.cpp";
        files.push_back({"src/" + words.at("SOURCE") + ".cpp", Fill(source, words), FILE_MODE});
    }
    std::sort(files.begin(), files.end(), [](const auto& one, const auto& other) { return one.path < other.path; });
    return files;
}

} // namespace NewBundle
