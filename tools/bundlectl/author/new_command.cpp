#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "new_project.h"
#include "printable.h"
#include "put/refusal.h"
#include "put/run.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace NewBundle;

struct Options {
    std::string name;
    std::string mode = "process";
    std::string language;
    std::string required;
    bool json = false;
};

std::vector<std::string> Split(const std::string& names)
{
    std::vector<std::string> all;
    std::istringstream stream(names);
    for (std::string name; std::getline(stream, name, ',');) {
        const std::size_t begin = std::min(name.find_first_not_of(' '), name.size());
        all.push_back(name.substr(begin, name.find_last_not_of(' ') + 1 - begin));
    }
    return all;
}

Wish WishOf(const Options& options)
{
    Wish wish;
    wish.name = options.name;
    wish.isThread = options.mode == "thread";
    wish.required = Split(options.required);
    const std::string language = options.language.empty() ? (wish.isThread ? "so" : "cpp") : options.language;
    wish.language = language == "sh" ? Language::SCRIPT : language == "so" ? Language::LIBRARY : Language::PROGRAM;
    return wish;
}

int RunNew(const Options& options)
{
    const Wish wish = WishOf(options);
    if (wish.isThread && wish.language != Language::LIBRARY) {
        std::cerr << "bundlectl: on a thread of the server only a library can run: add --lang so.\n";
        return EXIT_USAGE;
    }
    return Put::Guarded("new", wish.name, options.json, [&wish, &options] {
        RequireGoodNames(wish);
        const std::vector<ProjectFile> files = Compose(wish);
        Write(wish.name, files);
        Put::Report report;
        report.verb = "new";
        report.bundle = wish.name;
        report.outcome = "made";
        for (const ProjectFile& file : files) {
            report.details.push_back(wish.name + "/" + file.path);
        }
        report.text = "Next: cd " + wish.name +
                      " && cmake --preset native && cmake --build --preset native && ctest --preset native";
        return Put::Tell(report, EXIT_DONE, options.json);
    });
}

} // namespace

Action DefineNew(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    Argument name{"NAME", "the bundle's name, and the directory that is made for its project", "TEXT"};
    name.isRequired = true;
    arguments.Add(name, options->name);
    Argument mode{"--mode", "how the server runs the item", "MODE"};
    mode.choices = "process thread";
    mode.standard = "process";
    arguments.Add(mode, options->mode);
    Argument language{"--lang", "what the item is: a program of C++, a shell script, or a library of C++", "LANG"};
    language.choices = "cpp sh so";
    language.standard = "cpp, or so with --mode thread";
    arguments.Add(language, options->language);
    arguments.Add({"--requires", "the bundles that must start before it, with commas between them", "NAMES"},
                  options->required);
    arguments.AddFlag("--json", "print JSON, for programs", options->json);
    return [options] { return RunNew(*options); };
}
