#include "support/files.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace fs = std::filesystem;

namespace {

void Write(const std::string& path, const std::string& content, std::ios::openmode mode)
{
    std::ofstream file(path, std::ios::binary | mode);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

} // namespace

void WriteFile(const std::string& path, const std::string& content)
{
    Write(path, content, std::ios::trunc);
}

void AppendFile(const std::string& path, const std::string& content)
{
    Write(path, content, std::ios::app);
}

void WriteProgram(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    const std::string draft = path + ".draft";
    WriteFile(draft, content);
    fs::permissions(draft, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec);
    fs::rename(draft, path);
}

std::string ReadFile(const std::string& path)
{
    const std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    if (file) {
        content << file.rdbuf();
    }
    return content.str();
}

bool Exists(const std::string& path)
{
    return fs::exists(fs::symlink_status(path));
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

Tree TreeOf(const std::string& path)
{
    Tree tree;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path, error)) {
        const fs::file_status status = entry.symlink_status();
        std::string& shown = tree[fs::relative(entry.path(), path).string()];
        shown = std::to_string(static_cast<int>(status.type())) + " " +
                std::to_string(static_cast<unsigned>(status.permissions())) + "\n";
        if (fs::is_regular_file(status)) {
            shown += ReadFile(entry.path());
        }
    }
    return tree;
}
