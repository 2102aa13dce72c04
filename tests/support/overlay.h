#ifndef TESTS_SUPPORT_OVERLAY_H
#define TESTS_SUPPORT_OVERLAY_H

#include <ostream>
#include <string>

/// How an overlay is put together.
struct OverlayKind {
    const char* name;
    const char* lower; ///< the file system of the layer below: "same" as that of the layer above, tmpfs, ext4, squashfs
    const char* options = ""; ///< of the mount, with a comma in front
};
std::ostream& operator<<(std::ostream& stream, const OverlayKind& kind);

/// The directory for temporary files of this process, turned into an overlay, as the root of a device is one: what is
/// written before Mount() becomes the layer that is only read; what is written afterwards goes to a layer above it.
///
///     class OnAnOverlay : public OverlayRoot, public WatchingACollection   // first, so that TMPDIR is there in time
///
/// In a mount namespace of this process. Before the first thread is started.
class OverlayRoot {
public:
    explicit OverlayRoot(const OverlayKind& kind);
    OverlayRoot(const OverlayRoot&) = delete;
    OverlayRoot& operator=(const OverlayRoot&) = delete;
    ~OverlayRoot();

    /// @return empty, or what is missing for such a mount
    std::string Mount();

    /// Has the kernel drop the overlay's inodes from its cache, those in use aside.
    void DropInodes() const;

    /// The same for everything on this machine, as it does by itself when memory runs short.
    /// @return whether this process may
    static bool DropAllInodes();

private:
    std::string MakeLowerLayer() const;

    const OverlayKind m_kind;
    std::string m_missing;
    std::string m_directory; // everything below is there
};

#endif
