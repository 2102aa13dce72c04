#ifndef DIR_STREAM_H
#define DIR_STREAM_H

#include <dirent.h>

#include <memory>

namespace SystemServer {

/// Closes a directory that opendir has opened.
struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

/// An open directory and the duty to close it; empty when opendir has failed. Its descriptor is close-on-exec.
using DirStream = std::unique_ptr<DIR, DirCloser>;

} // namespace SystemServer

#endif
