#ifndef BUNDLE_STORAGE_DIR_H
#define BUNDLE_STORAGE_DIR_H

#include <Poco/Path.h>

#include <iosfwd>
#include <string>
#include <utility>

namespace SystemServer {

/// Where a bundle's files are. Immutable, so any thread may use it.
class BundleStorage {
public:
    /// @param rootPath the bundle directory, kept as given: it is the bundle's identity for look-ups by path, which
    /// compare it byte by byte
    explicit BundleStorage(const std::string& rootPath) : m_rootPath(rootPath) {}
    virtual ~BundleStorage();
    BundleStorage(const BundleStorage&) = delete;
    BundleStorage& operator=(const BundleStorage&) = delete;

    /// Opens one of the bundle's files for reading.
    /// @return a new stream that the caller owns, or null when there is no such file; the log says why
    virtual std::istream* GetResourceFile(const std::string& relativePath) const = 0;

    /// As it was given. Valid as long as the storage.
    const std::string& GetRootPath() const { return m_rootPath; }

protected:
    std::string m_rootPath;
};

/// A bundle in a plain directory. Refuses every path that would leave it.
class BundleStorageDir : public BundleStorage {
public:
    explicit BundleStorageDir(const std::string& rootPath) : BundleStorage(rootPath) {}
    ~BundleStorageDir() override;

    /// @throws Poco::InvalidArgumentException what GetResourceAbsPath refuses
    /// @throws Poco::FileException the file cannot be opened, or is neither a regular file nor a directory
    std::istream* GetResourceFile(const std::string& relativePath) const override;

    /// The path of a file below the root; whether it exists is not asked.
    /// @throws Poco::InvalidArgumentException relativePath is empty, absolute, has ".." in it or names a directory
    Poco::Path GetResourceAbsPath(const std::string& relativePath) const;
};

} // namespace SystemServer

#endif
