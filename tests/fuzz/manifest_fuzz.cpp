// The input is a manifest. The server reads it as the framework's INI reader does, key by key, or refuses it with the
// same exception. It refuses beforehand what is too long once its references are expanded.
#include "fuzz/fuzz_target.h"

#include "bundle_manifest.h"

#include <Poco/Exception.h>
#include <Poco/String.h>

#include <istream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

using Poco::Util::IniFileConfiguration;
using SystemServer::BundleManifest;

namespace {

struct Content {
    std::string name;
    int loadMode = 0;
    std::vector<std::string> dependencies;
    std::vector<std::pair<std::string, std::string>> items;

    bool operator==(const Content& other) const
    {
        return name == other.name && loadMode == other.loadMode && dependencies == other.dependencies &&
               items == other.items;
    }
};

/// An exception: its class, and the text of an exception of the framework.
using Refusal = std::string;
using Outcome = std::variant<Content, Refusal>;

/// Catches exceptions of the standard and of the framework only. Any other leaves the target, which is a finding.
template <class Read> Outcome OutcomeOf(const Read& read)
{
    try {
        return read();
    } catch (const Poco::Exception& e) {
        return Refusal(typeid(e).name() + (" " + e.displayText()));
    } catch (const std::exception& e) {
        return Refusal(typeid(e).name());
    }
}

Content Take(const BundleManifest& manifest)
{
    Content content{manifest.GetBundleName(), manifest.GetLoadMode(), manifest.GetDependencies(), {}};
    for (const BundleManifest::LoadItem& item : manifest.GetLoadItems()) {
        content.items.emplace_back(item.itemName, item.entryFunc);
    }
    return content;
}

std::vector<std::string> NamesIn(const std::string& list)
{
    std::vector<std::string> names;
    std::istringstream stream(list);
    for (std::string name; std::getline(stream, name, ',');) {
        name = Poco::trim(name);
        if (!name.empty()) {
            names.push_back(name);
        }
    }
    return names;
}

/// The content that the manifest must have for a text.
Content Expected(const std::string& text)
{
    std::istringstream stream(text);
    const Poco::AutoPtr<IniFileConfiguration> config(new IniFileConfiguration(stream));
    Content content;
    content.name = config->getString("global.bundle_name");
    content.loadMode = config->getInt("global.bundle_load_mode");
    content.dependencies = NamesIn(config->getString("global.bundle_dependencies", ""));
    IniFileConfiguration::Keys sections;
    config->keys(sections);
    for (const std::string& section : sections) {
        if (section == "global") {
            continue;
        }
        const std::string item = config->getString(section + ".item_name");
        if (item.size() < 3) {
            throw std::out_of_range(item);
        }
        const bool isLibrary = item.compare(item.size() - 3, 3, ".so") == 0;
        content.items.emplace_back(item, isLibrary ? config->getString(section + ".entry_func") : "");
    }
    return content;
}

bool IsRefusedForItsLength(const Outcome& outcome)
{
    const auto* const refusal = std::get_if<Refusal>(&outcome);
    return refusal != nullptr && refusal->find(typeid(Poco::DataFormatException).name()) == 0;
}

std::size_t SizeOf(const Content& content)
{
    std::size_t size = content.name.size();
    for (const std::string& name : content.dependencies) {
        size += name.size();
    }
    for (const auto& [item, function] : content.items) {
        size += item.size() + function.size();
    }
    return size;
}

/// A file that gives its bytes and then an I/O error.
class FailingFile : public std::streambuf {
public:
    explicit FailingFile(std::string& text) { setg(text.data(), text.data(), text.data() + text.size()); }

protected:
    int_type underflow() override { throw std::runtime_error("I/O error"); }
};

void RequireReadFailure(std::string text)
{
    FailingFile file(text);
    std::istream stream(&file);
    try {
        const BundleManifest manifest(stream);
    } catch (const Poco::ReadFileException&) {
        return;
    }
    Require(false, "a manifest that cannot be read to its end is taken");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const Outcome outcome = OutcomeOf([&] {
        std::istringstream stream(text);
        return Take(BundleManifest(stream));
    });
    if (IsRefusedForItsLength(outcome)) {
        // References, and a section's name before each of its keys, can expand to far more than the file.
        Require(text.find("${") != std::string::npos || size * size > BundleManifest::MAX_EXPANDED_SIZE,
                "a manifest that is short in every way is too long");
        return 0;
    }
    Require(outcome == OutcomeOf([&] { return Expected(text); }), "the manifest is not what the INI reader reads");
    if (const auto* const content = std::get_if<Content>(&outcome)) {
        Require(SizeOf(*content) <= BundleManifest::MAX_EXPANDED_SIZE, "the manifest is longer than it may be");
    }
    if (size <= BundleManifest::MAX_SIZE) {
        RequireReadFailure(text);
    }
    return 0;
}
