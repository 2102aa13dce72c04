#ifndef TESTS_SUPPORT_COLLECTION_BUILDER_H
#define TESTS_SUPPORT_COLLECTION_BUILDER_H

#include "support/files.h"
#include "support/temporary_directory.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Writes one bundle directory:
///     const std::string path = collection.Bundle("tuner").Requires("base").Item("tunerd", "#!/bin/sh\n").Write();
class BundleBuilder {
public:
    BundleBuilder(std::string path, std::string name) : m_path(std::move(path)), m_name(std::move(name)) {}

    /// The bundle's name, if it differs from the directory's.
    BundleBuilder& Name(const std::string& name);
    BundleBuilder& ThreadMode() { return Mode("1"); }
    BundleBuilder& Mode(const std::string& mode);
    BundleBuilder& Requires(const std::string& name);

    /// An item of the manifest. Items keep the order of these calls. With a content the item's file is written too, as
    /// an executable file.
    BundleBuilder& Item(const std::string& name);
    BundleBuilder& Item(const std::string& name, const std::string& content);
    /// An item with an entry function. Its file is a copy of another.
    BundleBuilder& Library(const std::string& name, const std::string& entryFunc, const std::string& copyOf = "");
    /// An item whose file is a copy of another, such as a program.
    BundleBuilder& Copy(const std::string& name, const std::string& copyOf);

    BundleBuilder& Install(const std::string& content) { return Script("install.sh", content); }
    BundleBuilder& Update(const std::string& content) { return Script("update.sh", content); }
    BundleBuilder& Uninstall(const std::string& content) { return Script("uninstall.sh", content); }
    BundleBuilder& Script(const std::string& name, const std::string& content);

    /// The manifest's text, in place of the generated one.
    BundleBuilder& Manifest(const std::string& text);
    BundleBuilder& NoManifest();

    /// Creates or overwrites the directory. Returns its path as a walk over the collection gives it.
    std::string Write() const;

private:
    struct ItemFile {
        std::string name;
        std::string entryFunc;
        std::optional<std::string> content;
        std::string copyOf;
    };

    std::string ManifestText() const;

    std::string m_path;
    std::string m_name;
    std::string m_mode = "0";
    std::vector<std::string> m_required;
    std::vector<ItemFile> m_items;
    std::vector<std::pair<std::string, std::string>> m_scripts;
    std::optional<std::string> m_manifest;
    bool m_hasManifest = true;
};

/// A temporary collection directory. The destructor removes it with its content.
class CollectionBuilder {
public:
    /// A bundle of that name in the directory of that name.
    BundleBuilder Bundle(const std::string& name) const { return BundleIn(name).Name(name); }
    BundleBuilder BundleIn(const std::string& directory) const { return {m_directory / directory, directory}; }

    /// The collection's path, without a "/" at the end.
    std::string Path() const { return m_directory.Path().string(); }
    /// The path of an entry.
    std::string operator/(const std::string& name) const { return m_directory / name; }

private:
    TemporaryDirectory m_directory;
};

#endif
