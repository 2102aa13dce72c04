#ifndef BUNDLECTL_AUTHOR_NEW_PROJECT_H
#define BUNDLECTL_AUTHOR_NEW_PROJECT_H

#include <string>
#include <vector>

/// The CMake project of a new bundle.
namespace NewBundle {

enum class Language {
    PROGRAM, ///< of C++
    SCRIPT,  ///< of the shell
    LIBRARY, ///< of C++
};

struct Wish {
    std::string name;
    bool isThread = false;
    Language language = Language::PROGRAM;
    std::vector<std::string> required;
};

struct ProjectFile {
    std::string path; ///< below the project's directory
    std::string text;
    unsigned mode;
};

/// @throws Put::Refusal the name is not valid for a file, a manifest and a CMake project
void RequireGoodNames(const Wish& wish);

/// The files, in the order of their paths. The names must have been checked.
std::vector<ProjectFile> Compose(const Wish& wish);

/// Makes the directory. It appears complete or not at all.
/// @param directory without a slash at its end
/// @throws Put::Refusal it exists, it cannot be written, or lint finds a fault in the manifest. Leaves nothing behind
/// then.
void Write(const std::string& directory, const std::vector<ProjectFile>& files);

} // namespace NewBundle

#endif
