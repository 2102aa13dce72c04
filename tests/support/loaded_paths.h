#ifndef TESTS_SUPPORT_LOADED_PATHS_H
#define TESTS_SUPPORT_LOADED_PATHS_H

#include "bundle_manager.h"

#include <filesystem>
#include <set>
#include <string>

/// The paths among these from which the manager has loaded a bundle.
template <class Paths> std::set<std::string> LoadedOf(SystemServer::BundleManager& manager, const Paths& paths)
{
    std::set<std::string> loaded;
    for (const std::string& path : paths) {
        if (manager.IsLoaded(path)) {
            loaded.insert(path);
        }
    }
    return loaded;
}

/// The entries of a collection from which the manager has loaded a bundle. Removed entries are left out.
inline std::set<std::string> LoadedIn(SystemServer::BundleManager& manager, const std::filesystem::path& collection)
{
    std::set<std::string> entries;
    for (const auto& entry : std::filesystem::directory_iterator(collection)) {
        entries.insert(entry.path().string());
    }
    return LoadedOf(manager, entries);
}

#endif
