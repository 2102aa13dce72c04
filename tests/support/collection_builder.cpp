#include "support/collection_builder.h"

#include <filesystem>
#include <sstream>

namespace {

namespace fs = std::filesystem;

void CopyProgram(const std::string& from, const std::string& to)
{
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

/// Names of sections that sort in the order of their numbers.
std::string SectionName(std::size_t number)
{
    const std::string digits = std::to_string(number);
    return "item" + std::string(4 - digits.size(), '0') + digits;
}

} // namespace

BundleBuilder& BundleBuilder::Name(const std::string& name)
{
    m_name = name;
    return *this;
}

BundleBuilder& BundleBuilder::Mode(const std::string& mode)
{
    m_mode = mode;
    return *this;
}

BundleBuilder& BundleBuilder::Requires(const std::string& name)
{
    m_required.push_back(name);
    return *this;
}

BundleBuilder& BundleBuilder::Item(const std::string& name)
{
    m_items.push_back({name, "", std::nullopt, ""});
    return *this;
}

BundleBuilder& BundleBuilder::Item(const std::string& name, const std::string& content)
{
    m_items.push_back({name, "", content, ""});
    return *this;
}

BundleBuilder& BundleBuilder::Library(const std::string& name, const std::string& entryFunc, const std::string& copyOf)
{
    m_items.push_back({name, entryFunc, std::nullopt, copyOf});
    return *this;
}

BundleBuilder& BundleBuilder::Copy(const std::string& name, const std::string& copyOf)
{
    m_items.push_back({name, "", std::nullopt, copyOf});
    return *this;
}

BundleBuilder& BundleBuilder::Script(const std::string& name, const std::string& content)
{
    m_scripts.emplace_back(name, content);
    return *this;
}

BundleBuilder& BundleBuilder::Manifest(const std::string& text)
{
    m_manifest = text;
    return *this;
}

BundleBuilder& BundleBuilder::NoManifest()
{
    m_hasManifest = false;
    return *this;
}

std::string BundleBuilder::ManifestText() const
{
    std::ostringstream text;
    text << "[global]\nbundle_name = " << m_name << "\nbundle_load_mode = " << m_mode << "\n";
    if (!m_required.empty()) {
        text << "bundle_dependencies = ";
        for (const std::string& name : m_required) {
            text << name << ",";
        }
        text << "\n";
    }
    for (std::size_t i = 0; i < m_items.size(); ++i) {
        text << "[" << SectionName(i) << "]\nitem_name = " << m_items[i].name << "\n";
        if (!m_items[i].entryFunc.empty()) {
            text << "entry_func = " << m_items[i].entryFunc << "\n";
        }
    }
    return text.str();
}

std::string BundleBuilder::Write() const
{
    fs::create_directories(m_path);
    for (const ItemFile& item : m_items) {
        const std::string file = m_path + "/bin/" + item.name;
        if (item.content) {
            WriteProgram(file, *item.content);
        } else if (!item.copyOf.empty()) {
            CopyProgram(item.copyOf, file);
        }
    }
    for (const auto& [name, content] : m_scripts) {
        WriteProgram(m_path + "/script/" + name, content);
    }
    if (m_hasManifest) {
        WriteFile(m_path + "/BundleManifest.ini", m_manifest.value_or(ManifestText()));
    }
    return m_path;
}
