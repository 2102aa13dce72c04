#ifndef DIR_STREAM_H
#define DIR_STREAM_H

#include <dirent.h>

#include <memory>

namespace SystemServer {

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

/// An open directory and the duty to close it.
using DirStream = std::unique_ptr<DIR, DirCloser>;

} // namespace SystemServer

#endif
