#ifndef BUNDLE_STORAGE_DIR_H
#define BUNDLE_STORAGE_DIR_H

#include <Poco/Path.h>

#include <iosfwd>
#include <string>
#include <utility>

namespace SystemServer {

/// Access to a bundle's files. Immutable, so any thread may use it.
class BundleStorage {
public:
    /// @param rootPath the bundle directory, kept as given: look-ups by path compare it byte by byte
    explicit BundleStorage(const std::string& rootPath) : m_rootPath(rootPath) {}
    virtual ~BundleStorage();
    BundleStorage(const BundleStorage&) = delete;
    BundleStorage& operator=(const BundleStorage&) = delete;

    /// Opens one of the bundle's files for reading.
    /// @return a new stream that the caller owns, or null when the file does not exist; the log says why
    virtual std::istream* GetResourceFile(const std::string& relativePath) const = 0;

    /// As it was given. Valid as long as the storage lives.
    const std::string& GetRootPath() const { return m_rootPath; }

protected:
    std::string m_rootPath;
};

/// A bundle in a plain directory. Refuses every path that leads out of it.
class BundleStorageDir : public BundleStorage {
public:
    explicit BundleStorageDir(const std::string& rootPath) : BundleStorage(rootPath) {}
    ~BundleStorageDir() override;

    /// @throws Poco::InvalidArgumentException GetResourceAbsPath refuses the path
    /// @throws Poco::FileException the file cannot be opened, or is neither a regular file nor a directory
    std::istream* GetResourceFile(const std::string& relativePath) const override;

    /// The path of a file below the root. Does not check that the file exists.
    /// @throws Poco::InvalidArgumentException relativePath is empty, absolute, has ".." in it or names a directory
    Poco::Path GetResourceAbsPath(const std::string& relativePath) const;
};

} // namespace SystemServer

#endif
