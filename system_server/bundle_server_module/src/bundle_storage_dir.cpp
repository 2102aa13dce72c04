#include "bundle_storage_dir.h"

#include "bundle_log.h"

#include <Poco/Exception.h>
#include <Poco/FileStream.h>

#include <sys/stat.h>

#include <memory>

namespace SystemServer {

BundleStorage::~BundleStorage() = default;
BundleStorageDir::~BundleStorageDir() = default;

Poco::Path BundleStorageDir::GetResourceAbsPath(const std::string& relativePath) const
{
    Poco::Path result(m_rootPath);
    result.makeDirectory();
    if (relativePath.empty()) {
        throw Poco::InvalidArgumentException("relativePath is empty.");
    }
    const Poco::Path relative(relativePath, Poco::Path::PATH_UNIX);
    if (relative.isAbsolute()) {
        throw Poco::InvalidArgumentException("Path is not relative path.");
    }
    // Refused anywhere, not only as a component. This also refuses a name like "a..b", but no path can evade the test.
    if (relativePath.find("..") != std::string::npos) {
        throw Poco::InvalidArgumentException("Path must not contain '..'");
    }
    if (relativePath.back() == '/') {
        throw Poco::InvalidArgumentException("Path must contain file");
    }
    for (int i = 0; i < relative.depth(); ++i) {
        if (relative.directory(i) != ".") {
            result.pushDirectory(relative.directory(i));
        }
    }
    result.setFileName(relative.getFileName());
    return result;
}

std::istream* BundleStorageDir::GetResourceFile(const std::string& relativePath) const
{
    const std::string path = GetResourceAbsPath(relativePath).toString();
    struct stat status {};
    if (stat(path.c_str(), &status) == -1) {
        BUNDLE_ERROR("resource file[%s] does not exist.", path.c_str());
        return nullptr;
    }
    if (S_ISDIR(status.st_mode)) {
        BUNDLE_ERROR("[%s] is directory.", path.c_str());
        return nullptr;
    }
    // Opening a FIFO would wait for its writer while the manager's lock is held.
    if (!S_ISREG(status.st_mode)) {
        throw Poco::OpenFileException("not a regular file", path);
    }
    auto stream = std::make_unique<Poco::FileInputStream>(path, std::ios::in);
    // A file that the kernel generates on reading has the size 0. Reading it may block or never end.
    if (status.st_size == 0) {
        stream->setstate(std::ios::eofbit);
    }
    return stream.release();
}

} // namespace SystemServer
