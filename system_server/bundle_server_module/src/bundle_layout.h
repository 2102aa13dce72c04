#ifndef BUNDLE_LAYOUT_H
#define BUNDLE_LAYOUT_H

/// What a bundle's directory has in it: the names that the server knows.
namespace SystemServer::BundleLayout {

constexpr const char* MANIFEST = "BundleManifest.ini";
constexpr const char* BIN = "bin";       ///< the folder of the items
constexpr const char* SCRIPT = "script"; ///< the folder of the scripts

} // namespace SystemServer::BundleLayout

#endif
