#ifndef TESTS_BUNDLECTL_AUTHOR_LINT_FIXTURE_H
#define TESTS_BUNDLECTL_AUTHOR_LINT_FIXTURE_H

#include "lint/lint.h"

#include "support/collection_builder.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace LintTest {

constexpr const char SCRIPT[] = "#!/bin/sh\nexit 0\n";
constexpr const char HEAD[] = "[global]\nbundle_name = radio\nbundle_load_mode = 0\n";

using Found = std::vector<std::string>;

/// Bundles, and lint's findings in them.
class LintFindings : public ::testing::Test {
public:
    /// The ids of the findings, in their order.
    std::vector<std::string> Ids(const std::vector<std::string>& paths)
    {
        result = Lint::LintPaths(paths, options);
        std::vector<std::string> ids;
        for (const Lint::Finding& finding : result.findings) {
            ids.emplace_back(finding.rule->id);
        }
        return ids;
    }

    std::vector<std::string> IdsOf(const std::string& directory) { return Ids({collection / directory}); }
    std::vector<std::string> IdsOfAll() { return Ids({collection.Path()}); }

    /// The findings of a bundle that has this manifest and nothing else.
    std::vector<std::string> IdsOfManifest(const std::string& text)
    {
        collection.BundleIn("radio").Manifest(text).Write();
        return IdsOf("radio");
    }

    /// The findings of a bundle with one shell item.
    std::vector<std::string> IdsOfShell(const std::string& text)
    {
        collection.Bundle("radio").Item("tuner.sh", text).Write();
        return IdsOf("radio");
    }

    int LineOf(const std::string& id) const
    {
        const auto found = std::find_if(result.findings.begin(), result.findings.end(),
                                        [&id](const Lint::Finding& finding) { return id == finding.rule->id; });
        return found == result.findings.end() ? -1 : found->line;
    }

    std::string TextOf(const std::string& id) const
    {
        const auto found = std::find_if(result.findings.begin(), result.findings.end(),
                                        [&id](const Lint::Finding& finding) { return id == finding.rule->id; });
        return found == result.findings.end() ? "" : found->text;
    }

    CollectionBuilder collection;
    Lint::Options options;
    Lint::Result result;
};

} // namespace LintTest

#endif
