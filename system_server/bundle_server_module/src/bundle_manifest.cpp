#include "bundle_manifest.h"

#include "bundle_log.h"
#include "item_kind.h"

#include <Poco/Exception.h>
#include <Poco/StringTokenizer.h>

#include <algorithm>
#include <array>
#include <istream>
#include <sstream>
#include <stdexcept>

namespace SystemServer {

const std::string BundleManifest::GLOBAL_SECTION_NAME = "global";
const std::string BundleManifest::BUNDLE_NAME = "bundle_name";
const std::string BundleManifest::BUNDLE_LOAD_MODE = "bundle_load_mode";
const std::string BundleManifest::BUNDLE_DEPENDENCY = "bundle_dependencies";
const std::string BundleManifest::DEFAULT_SEPARATOR = ",";
const std::string BundleManifest::ITEM_NAME = "item_name";
const std::string BundleManifest::ENTRY_FUNC = "entry_func";

namespace {

[[noreturn]] void RefuseExpansion()
{
    throw Poco::DataFormatException("bundle manifest expands to more than " +
                                    std::to_string(BundleManifest::MAX_EXPANDED_SIZE) + " bytes");
}

// The INI reader stores each key together with its section's name. A file of some hundred kilobytes with one long
// section name and many short keys would take gigabytes of memory.
void RequireBoundedKeys(const std::string& text)
{
    std::size_t section = 0;
    std::size_t kept = 0;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::size_t first = std::min(text.find_first_not_of(" \t\v\f\r", begin), end);
        if (first < end && text[first] == '[') {
            section = end - first; // a key may follow in the same line, so the count is never too low
            kept += section;
        } else if (first < end && text[first] != ';') {
            kept += section + (end - first);
        }
        if (kept > BundleManifest::MAX_EXPANDED_SIZE) {
            RefuseExpansion();
        }
        begin = end + 1;
    }
}

// Reads to the end, or until takes refuses further chunks.
template <class Take> void ReadChunks(std::istream& stream, const Take& take)
{
    std::array<char, 4096> chunk;
    while (stream.read(chunk.data(), chunk.size()) || stream.gcount() > 0) {
        if (!take(chunk.data(), static_cast<std::size_t>(stream.gcount()))) {
            return;
        }
    }
    if (stream.bad()) {
        throw Poco::ReadFileException("bundle manifest can not be read");
    }
}

// The INI reader reads until the end of the file. It does not check for errors, so a read error would make it loop
// forever.
std::string ReadWhole(std::istream& stream)
{
    std::string text;
    ReadChunks(stream, [&text](const char* data, std::size_t size) {
        text.append(data, size);
        if (text.size() > BundleManifest::MAX_SIZE) {
            throw Poco::DataFormatException("bundle manifest is longer than " +
                                            std::to_string(BundleManifest::MAX_SIZE) + " bytes");
        }
        return true;
    });
    RequireBoundedKeys(text);
    return text;
}

/// References nest ten deep, and a value may repeat each many times. So a few lines can expand to more text than fits
/// into memory. This class counts all text that was read, references included.
class BoundedIniConfiguration : public Poco::Util::IniFileConfiguration {
public:
    explicit BoundedIniConfiguration(std::istream& stream) : IniFileConfiguration(stream) {}

protected:
    bool getRaw(const std::string& key, std::string& value) const override
    {
        const bool exists = IniFileConfiguration::getRaw(key, value);
        m_charactersRead += exists ? value.size() : 0;
        if (m_charactersRead > BundleManifest::MAX_EXPANDED_SIZE) {
            RefuseExpansion();
        }
        return exists;
    }

private:
    mutable std::size_t m_charactersRead = 0;
};

} // namespace

BundleManifest::BundleManifest(std::istream& stream)
{
    const std::string content = ReadWhole(stream);
    m_contentHash.Add(content.data(), content.size());
    std::istringstream text(content);
    m_config = new BoundedIniConfiguration(text);
    try {
        Parse();
    } catch (...) {
        Clear();
        BUNDLE_ERROR("parse bundle manifest fail.");
        throw;
    }
}

BundleManifest::~BundleManifest() = default;

void BundleManifest::Parse()
{
    ParseGlobalSection();
    ParseDependencies();
    Poco::Util::AbstractConfiguration::Keys sections;
    m_config->keys(sections);
    for (const std::string& section : sections) {
        // Compared byte for byte, unlike keys: "[Global]" gives the global keys and is also an item section.
        if (section != GLOBAL_SECTION_NAME) {
            ParseLoadItem(section);
        }
    }
    BUNDLE_INFO("==================================================");
}

void BundleManifest::ParseGlobalSection()
{
    m_bundleName = m_config->getString(GLOBAL_SECTION_NAME + "." + BUNDLE_NAME);
    m_loadMode = static_cast<LoadModeType>(m_config->getInt(GLOBAL_SECTION_NAME + "." + BUNDLE_LOAD_MODE));
    BUNDLE_INFO("=================bundle info=================");
    BUNDLE_INFO("bundle name ------> [%s]", m_bundleName.c_str());
    BUNDLE_INFO("bundle load mode ------> [%d]", static_cast<int>(m_loadMode));
}

void BundleManifest::ParseDependencies()
{
    const std::string names = m_config->getString(GLOBAL_SECTION_NAME + "." + BUNDLE_DEPENDENCY, "");
    const Poco::StringTokenizer tokens(names, DEFAULT_SEPARATOR,
                                       Poco::StringTokenizer::TOK_IGNORE_EMPTY | Poco::StringTokenizer::TOK_TRIM);
    for (const std::string& name : tokens) {
        BUNDLE_INFO("bundle dependencies ------> [%s]", name.c_str());
        m_dependencies.push_back(name);
    }
}

void BundleManifest::ParseLoadItem(const std::string& section)
{
    LoadItem item;
    item.itemName = m_config->getString(section + "." + ITEM_NAME);
    BUNDLE_INFO("==================");
    BUNDLE_INFO("bundle item info : ");
    BUNDLE_INFO("bundle item name ------> [%s]", item.itemName.c_str());
    const ItemKind kind = KindOf(item.itemName);
    if (kind == ItemKind::TOO_SHORT) {
        // Not a Poco::Exception, so it ends the server's start when the whole collection is loaded, instead of failing
        // this bundle alone.
        throw std::out_of_range("item name[" + item.itemName + "] is shorter than three characters");
    }
    if (kind == ItemKind::LIBRARY) {
        item.entryFunc = m_config->getString(section + "." + ENTRY_FUNC);
        BUNDLE_INFO("bundle item[dyn lib] entry func ------> [%s]", item.entryFunc.c_str());
    }
    BUNDLE_INFO("==================");
    m_loadItems.push_back(item);
}

bool BundleManifest::WasReadFrom(std::istream& stream) const
{
    ContentHash hash;
    std::size_t hashed = 0;
    ReadChunks(stream, [&](const char* data, std::size_t size) {
        hash.Add(data, size);
        hashed += size;
        return hashed <= MAX_SIZE;
    });
    return hash == m_contentHash;
}

void BundleManifest::Clear()
{
    m_config = nullptr;
    m_loadItems.clear();
    m_dependencies.clear();
    m_bundleName.clear();
}

} // namespace SystemServer
