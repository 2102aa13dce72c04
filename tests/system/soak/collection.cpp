#include "system/soak/collection.h"

#include "support/shell.h"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr int ITEMS_OF_A_BUNDLE = 2;
constexpr const char MANIFEST[] = "/BundleManifest.ini";

} // namespace

void SoakCollection::Write(int count)
{
    for (int number = 0; number < count; ++number) {
        WriteBundle(number);
    }
}

void SoakCollection::WriteBundle(int number)
{
    SoakBundle& bundle = m_books.AddBundle("bundle" + std::to_string(number));
    BundleBuilder builder = m_staging.Bundle(bundle.name);
    const std::string bin = fs::canonical(m_collection.Path()).string() + "/" + bundle.name + "/bin/";
    for (int i = 0; i < ITEMS_OF_A_BUNDLE; ++i) {
        const std::string name = "item" + std::to_string(number) + "_" + std::to_string(i);
        builder.Copy(name, TEST_SOAK_ITEM);
        m_books.AddItem(bundle, name, bin + name);
    }
    if (number % 2 == 0) {
        builder.Install(Shell("exit 0")).Update(Shell("exit 0")).Uninstall(Shell("exit 0"));
    }
    if (number % 5 == 4) {
        builder.Requires(m_books.Bundles().front().name);
    }
    builder.Write();
    fs::copy(m_staging / bundle.name, In(bundle.name), fs::copy_options::recursive);
    m_books.ExpectStart(bundle);
}

void SoakCollection::Install(SoakBundle& bundle)
{
    ++m_counts["bundles added"];
    bundle.isIn = true;
    m_books.ExpectStart(bundle);
    if (m_random.InPercent(50)) {
        // The manifest comes last. If the copy is delayed for a second, the server finds a directory that is no bundle
        // yet.
        fs::create_directory(In(bundle.name));
        for (const char* const part : {"/script", "/bin", MANIFEST}) {
            if (Exists(m_staging / bundle.name + part)) {
                fs::copy(m_staging / bundle.name + part, In(bundle.name) + part, fs::copy_options::recursive);
            }
        }
    } else {
        fs::copy(m_staging / bundle.name, m_staging / "copy", fs::copy_options::recursive);
        fs::rename(m_staging / "copy", In(bundle.name));
    }
}

void SoakCollection::Update(SoakBundle& bundle)
{
    ++m_counts["bundles updated"];
    bundle.isBroken = false;
    m_books.ExpectStop(bundle);
    m_books.ExpectStart(bundle);
    fs::copy_file(m_staging / bundle.name + MANIFEST, m_staging / "manifest", fs::copy_options::overwrite_existing);
    fs::rename(m_staging / "manifest", In(bundle.name) + MANIFEST);
}

void SoakCollection::Touch(SoakBundle& bundle)
{
    ++m_counts["bundles updated"];
    m_books.ExpectStop(bundle);
    m_books.ExpectStart(bundle);
    fs::last_write_time(In(bundle.name), fs::file_time_type::clock::now());
}

void SoakCollection::Break(SoakBundle& bundle)
{
    ++m_counts["bundles broken"];
    bundle.isBroken = true;
    m_books.ExpectFailedUpdate(bundle);
    WriteFile(m_staging / "manifest", "[global]\nbundle_name = broken\n");
    fs::rename(m_staging / "manifest", In(bundle.name) + MANIFEST);
}

void SoakCollection::Withdraw(SoakBundle& bundle)
{
    ++m_counts["bundles withdrawn"];
    bundle.isIn = false;
    m_books.ExpectStop(bundle);
    m_books.ExpectUnload(bundle);
    fs::remove_all(m_staging / "withdrawn");
    fs::rename(In(bundle.name), m_staging / "withdrawn");
}

void SoakCollection::DropInJunk()
{
    if (!m_junkFailures.Balances()) {
        return;
    }
    fs::remove_all(In("junk" + std::to_string(m_junk)));
    ++m_counts["directories that are no bundles"];
    ++m_junkFailures.due;
    const std::string name = "junk" + std::to_string(++m_junk);
    m_staging.Bundle(name).NoManifest().Script("install.sh", Shell("exit 1")).Write();
    fs::rename(m_staging / name, In(name));
}

void SoakCollection::TakeRecord(const LogRecord& record)
{
    if (record.message.rfind("failed to load bundle from [" + In("junk"), 0) == 0) {
        ++m_junkFailures.seen;
    }
}

int SoakCollection::BundlesOut() const
{
    const auto& bundles = m_books.Bundles();
    return static_cast<int>(
        std::count_if(bundles.begin(), bundles.end(), [](const SoakBundle& bundle) { return !bundle.isIn; }));
}
