#include "system/restart/installed_bundles.h"

#include "support/shell.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <utility>

namespace {

namespace fs = std::filesystem;

constexpr int FILES_OF_LARGE = 5000; // makes its removal slow
constexpr const char MANIFEST[] = "/BundleManifest.ini";

/// Whether each entry of the rest is unchanged from the whole.
bool IsPartOf(const Tree& rest, const Tree& whole)
{
    return std::includes(whole.begin(), whole.end(), rest.begin(), rest.end());
}

} // namespace

const std::map<std::string, std::vector<std::string>>& InstalledBundles::Items()
{
    static const std::map<std::string, std::vector<std::string>> items{
        {"base", {"based"}},   {"radio", {"radiod", "ukwd"}},  {"tuner", {"tunerd"}},
        {"alarm", {"alarmd"}}, {LARGE, {"larged", "largerd"}}, {GUEST, {"guestd"}},
    };
    return items;
}

void InstalledBundles::Write()
{
    for (const auto& [bundle, items] : Items()) {
        BundleBuilder builder = m_staging.Bundle(bundle);
        for (const std::string& item : items) {
            builder.Copy(item, TEST_SLEEPER);
        }
        if (bundle == "radio") {
            builder.Requires("base");
        }
        builder.Install(Shell("exit 0")).Update(Shell("sleep 0.02")).Uninstall(Shell("exit 0")).Write();
    }
    // The files are in the bundle's root, among them the manifest. The file system decides which of them "rm" removes
    // first.
    for (int i = 0; i < FILES_OF_LARGE; ++i) {
        WriteFile(m_staging / LARGE + "/" + std::to_string(i), std::to_string(i));
    }
    for (const auto& [bundle, items] : Items()) {
        m_originals[bundle] = TreeOf(m_staging / bundle);
        if (bundle != GUEST) {
            Install(bundle);
        }
    }
}

void InstalledBundles::Install(const std::string& bundle)
{
    fs::remove_all(In(bundle));
    fs::copy(m_staging / bundle, m_staging / "copy", fs::copy_options::recursive);
    fs::rename(m_staging / "copy", In(bundle));
    m_installed.insert(bundle);
    m_isHalfDeleted = m_isHalfDeleted && bundle != LARGE;
}

void InstalledBundles::Remove(const std::string& bundle)
{
    fs::remove_all(In(bundle));
    m_installed.erase(bundle);
}

void InstalledBundles::Update(const std::string& bundle)
{
    const std::string manifest = m_staging / bundle + MANIFEST;
    WriteFile(manifest, ReadFile(manifest) + "; version " + std::to_string(++m_version) + "\n");
    m_originals[bundle] = TreeOf(m_staging / bundle);
    fs::copy_file(manifest, m_staging / "manifest", fs::copy_options::overwrite_existing);
    fs::rename(m_staging / "manifest", In(bundle) + MANIFEST);
}

std::string InstalledBundles::TakeLarge()
{
    const Tree rest = TreeOf(In(LARGE));
    const bool isThere = Exists(In(LARGE));
    if (isThere && rest == m_originals.at(LARGE)) {
        return "not yet deleted";
    }
    m_installed.erase(LARGE);
    m_isHalfDeleted = isThere;
    if (!isThere) {
        return "deleted";
    }
    EXPECT_TRUE(IsPartOf(rest, m_originals.at(LARGE))) << "the rest has changed";
    return rest.count("BundleManifest.ini") != 0 ? "half deleted, with its manifest" : "half deleted, without it";
}

void InstalledBundles::ForgetLarge()
{
    Remove(LARGE);
    m_isHalfDeleted = false;
}

void InstalledBundles::ExpectUnchanged() const
{
    for (const std::string& bundle : m_installed) {
        EXPECT_TRUE(TreeOf(In(bundle)) == m_originals.at(bundle)) << bundle << " is not the installed one";
    }
    for (const fs::directory_entry& entry : fs::directory_iterator(m_collection.Path())) {
        const std::string name = entry.path().filename();
        EXPECT_TRUE(Has(name) || (m_isHalfDeleted && name == LARGE)) << name;
    }
}

std::vector<std::pair<std::string, std::string>> InstalledBundles::ItemsDue() const
{
    std::vector<std::pair<std::string, std::string>> due;
    for (const auto& [bundle, items] : Items()) {
        for (const std::string& item : items) {
            if (Exists(In(bundle) + MANIFEST) && Exists(In(bundle) + "/bin/" + item)) {
                due.emplace_back(bundle, item);
            }
        }
    }
    return due;
}
