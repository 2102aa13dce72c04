#include "replaced_file.h"

#include "common/unique_fd.h"
#include "printable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

bool ReplaceFile(const std::string& file, const std::string& text)
{
    constexpr mode_t mode = 0644;
    const std::string made = file + ".new"; // the node exporter reads only names that end in ".prom"
    const Common::UniqueFd fd(::open(made.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    const bool isWritten = fd.IsOpen() && ::fchmod(fd.Get(), mode) == 0 &&
                           ::write(fd.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                           std::rename(made.c_str(), file.c_str()) == 0;
    if (!isWritten) {
        const int error = errno;
        ::unlink(made.c_str());
        std::cerr << "bundlectl: " << Printable(file) << " cannot be written: " << std::strerror(error) << ".\n";
    }
    return isWritten;
}
