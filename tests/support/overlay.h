#ifndef TESTS_SUPPORT_OVERLAY_H
#define TESTS_SUPPORT_OVERLAY_H

#include <ostream>
#include <string>

/// The layers and options of an overlay.
struct OverlayKind {
    const char* name;
    const char* lower; ///< the file system of the layer below: "same" as that of the layer above, tmpfs, ext4, squashfs
    const char* options = ""; ///< of the mount, with a comma in front
};
std::ostream& operator<<(std::ostream& stream, const OverlayKind& kind);

/// Turns this process's directory for temporary files into an overlay, like the root of a device. Files that are
/// written before Mount() become the read-only layer. Later writes go to a layer above it.
///
///     class OnAnOverlay : public OverlayRoot, public WatchingACollection   // first, so that TMPDIR is there in time
///
/// The mounts are in a mount namespace of this process. Create it before the first thread starts.
class OverlayRoot {
public:
    explicit OverlayRoot(const OverlayKind& kind);
    OverlayRoot(const OverlayRoot&) = delete;
    OverlayRoot& operator=(const OverlayRoot&) = delete;
    ~OverlayRoot();

    /// @return empty, or what is missing for such a mount
    std::string Mount();

    /// Makes the kernel drop the overlay's cached inodes, except those in use.
    void DropInodes() const;

    /// The same for all file systems of this machine, as the kernel itself does when memory runs short.
    /// @return whether this process is allowed to
    static bool DropAllInodes();

private:
    std::string MakeLowerLayer() const;

    const OverlayKind m_kind;
    std::string m_missing;
    std::string m_directory; // everything below is there
};

#endif
