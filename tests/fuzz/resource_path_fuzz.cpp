// The input is a path that the storage is asked for. The storage must refuse it for the first reason that applies, or
// return a path below the root. It must only open files below the root.
#include "fuzz/fuzz_target.h"

#include "bundle_storage_dir.h"

#include "support/collection_builder.h"
#include "support/temporary_directory.h"

#include <Poco/Exception.h>
#include <Poco/Path.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using SystemServer::BundleStorageDir;

namespace {

const std::string INSIDE = "inside";

/// A bundle with files, a directory and a FIFO, and files around it.
class Surroundings {
public:
    Surroundings()
    {
        for (const char* const folder : {"/bin", "/script"}) {
            std::filesystem::create_directories(root + folder);
        }
        for (const char* const file : {"/BundleManifest.ini", "/bin/app", "/script/install.sh", "/~", "/a:"}) {
            WriteFile(root + file, INSIDE);
        }
        for (const char* const file : {"secret", "BundleManifest.ini", "app"}) {
            WriteFile(m_directory / file, "outside");
        }
        Require(::mkfifo((root + "/fifo").c_str(), 0600) == 0, "no FIFO can be made");
    }

private:
    TemporaryDirectory m_directory;

public:
    const std::string root = m_directory / "bundle";
};

struct Result {
    std::string path;
    std::string refusal;

    bool operator==(const Result& other) const { return path == other.path && refusal == other.refusal; }
};

Result Ask(const std::string& root, const std::string& relative)
{
    try {
        return {BundleStorageDir(root).GetResourceAbsPath(relative).toString(), ""};
    } catch (const Poco::InvalidArgumentException& e) {
        return {"", e.message()};
    }
}

std::vector<std::string> ComponentsOf(const std::string& path)
{
    std::vector<std::string> components;
    std::string component;
    for (const char c : path + "/") {
        if (c != '/') {
            component += c;
            continue;
        }
        components.push_back(component);
        component.clear();
    }
    return components;
}

Result Expected(const std::string& root, const std::string& relative)
{
    if (relative.empty()) {
        return {"", "relativePath is empty."};
    }
    if (Poco::Path(relative, Poco::Path::PATH_UNIX).isAbsolute()) {
        return {"", "Path is not relative path."};
    }
    if (relative.find("..") != std::string::npos) {
        return {"", "Path must not contain '..'"};
    }
    if (relative.back() == '/') {
        return {"", "Path must contain file"};
    }
    std::string path = root + "/";
    std::vector<std::string> directories = ComponentsOf(relative);
    const std::string file = directories.back();
    directories.pop_back();
    for (const std::string& directory : directories) {
        if (!directory.empty() && directory != ".") {
            path += directory + "/";
        }
    }
    return {path + file, ""};
}

/// Whether the path begins with the root and no component after it leads up.
bool IsBelow(const std::string& root, const std::string& path)
{
    if (path.compare(0, root.size() + 1, root + "/") != 0) {
        return false;
    }
    const std::vector<std::string> components = ComponentsOf(path.substr(root.size() + 1));
    return std::find(components.begin(), components.end(), "..") == components.end();
}

void RequireContentFromInside(const BundleStorageDir& storage, const std::string& relative, bool isRefused)
{
    try {
        const std::unique_ptr<std::istream> stream(storage.GetResourceFile(relative));
        Require(!isRefused, "a path that is refused is opened");
        if (stream) {
            std::ostringstream content;
            content << stream->rdbuf();
            Require(content.str() == INSIDE, "a file is opened that is not the bundle's");
        }
    } catch (const Poco::InvalidArgumentException&) {
        Require(isRefused, "a path that is not refused cannot be opened");
    } catch (const Poco::OpenFileException& e) {
        Require(e.message().find("/fifo") != std::string::npos, "a regular file is not opened");
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Surroundings surroundings;
    const std::string& root = surroundings.root;
    const std::string relative(data, data + size);

    const Result result = Ask(root, relative);
    Require(result == Expected(root, relative), "the path is not what it has to be");
    Require(result == Ask(root + "/", relative), "the path depends on the slash behind the root");
    const bool isRefused = !result.refusal.empty();
    Require(isRefused || IsBelow(root, result.path), "the path leads out of the root");
    RequireContentFromInside(BundleStorageDir(root), relative, isRefused);
    return 0;
}
