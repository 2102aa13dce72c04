#include "arguments.h"
#include "command.h"
#include "exit_status.h"
#include "lint_output.h"
#include "printable.h"
#include "suggestion.h"

#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Options {
    std::vector<std::string> paths;
    Lint::Options lint;
    std::string explain;
    std::string format = "text";
    bool json = false;
    bool strict = false;
    bool list = false;
};

int Explain(const std::string& id)
{
    if (const Lint::Rule* const rule = Lint::FindRule(id)) {
        std::cout << LintOutput::Explanation(*rule, Output::AskTerminal()) << std::flush;
        return EXIT_DONE;
    }
    std::vector<std::string_view> ids;
    for (const Lint::Rule* const rule : Lint::AllRules()) {
        ids.emplace_back(rule->id);
    }
    const std::string_view nearest = Nearest(id, ids);
    std::cerr << "bundlectl: there is no rule \"" << Printable(id) << "\". "
              << (nearest.empty() ? std::string("bundlectl lint --rules lists them.")
                                  : "Did you mean \"" + std::string(nearest) + "\"?")
              << '\n';
    return EXIT_USAGE;
}

int RunLint(const Options& options)
{
    if (options.list) {
        std::cout << LintOutput::List(Output::AskTerminal()) << std::flush;
        return EXIT_DONE;
    }
    if (!options.explain.empty()) {
        return Explain(options.explain);
    }
    if (options.paths.empty()) {
        std::cerr << "bundlectl: name a bundle's directory, or a collection: bundlectl lint PATH\n";
        return EXIT_USAGE;
    }
    const Lint::Result result = Lint::LintPaths(options.paths, options.lint);
    if (!result.trouble.empty()) {
        std::cerr << "bundlectl: " << result.trouble << '\n';
        return EXIT_USAGE;
    }
    const std::string format = options.json ? "json" : options.format;
    std::cout << (format == "json"    ? LintOutput::Json(result)
                  : format == "sarif" ? LintOutput::Sarif(result)
                                      : LintOutput::Text(result, Output::AskTerminal()))
              << std::flush;
    if (!std::cout.good()) {
        std::cerr << "bundlectl: standard output takes no more.\n";
        return EXIT_FAILED;
    }
    return result.HasErrors() || (options.strict && !result.findings.empty()) ? EXIT_FAILED : EXIT_DONE;
}

} // namespace

Action DefineLint(Arguments& arguments)
{
    const auto options = std::make_shared<Options>();
    arguments.Add({"PATH", "bundles' directories, or collections", "DIR"}, options->paths);
    arguments.AddFlag("--strict", "warnings count as well for the exit status", options->strict);
    arguments.Add({"--arch", "the machine that the bundles are to run on; without it, this one", "MACHINE"},
                  options->lint.machine);
    arguments.Add({"--sysroot", "the root of the file system that they are to run in", "DIR"}, options->lint.sysroot);
    arguments.Add({"--collection", "the collection that they are to come into: what they require must be there", "DIR"},
                  options->lint.collection);
    arguments.Add({"--explain", "print what a rule means, and nothing else", "RULE"}, options->explain);
    arguments.AddFlag("--rules", "list the rules, and nothing else", options->list);
    Argument format{"--format", "how to print the findings", "FORMAT"};
    format.choices = "text json sarif";
    format.standard = "text";
    arguments.Add(format, options->format);
    arguments.AddFlag("--json", "the same as --format=json", options->json);
    return [options] { return RunLint(*options); };
}
