#ifndef DIRECTORY_H
#define DIRECTORY_H

#include <Poco/Exception.h>
#include <Poco/File.h>

namespace SystemServer {

/// Whether an entry of the collection is a directory, or a link to one. What cannot be told, a dangling link or an
/// entry that has just vanished, is none.
inline bool IsDirectory(const Poco::File& entry)
{
    try {
        return entry.isDirectory();
    } catch (const Poco::Exception&) {
        return false;
    }
}

} // namespace SystemServer

#endif
