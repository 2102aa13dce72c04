#ifndef BUNDLECTL_PUT_STORE_H
#define BUNDLECTL_PUT_STORE_H

#include "common/unique_fd.h"
#include "put/contents.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Put {

/// The directory beside a collection in which versions are made and kept: for /data/bundles, /data/.bundles.bundlectl.
/// It is on the collection's file system, so that a version gets into the collection in one step. It is outside of the
/// collection, so that the server does not see it.
class Store {
public:
    /// READ writes nothing and needs no directory.
    enum Access { READ, CHANGE };

    /// To CHANGE, makes the directory if it is missing. @throws Refusal when it cannot be beside the collection
    Store(const std::string& collection, Access access);

    const std::string& Collection() const { return m_collection; } ///< absolute, without links
    const std::string& Path() const { return m_path; }
    bool IsForReading() const { return m_access == READ; }
    /// Why the kept versions cannot be read; empty: they can, or there are none.
    std::string FaultOfReading() const;

private:
    Access m_access;
    std::string m_collection;
    std::string m_path;
};

/// The lock of a collection: one program at a time works on it. The destructor releases it, and so does the end of the
/// process.
class StoreLock {
public:
    /// @param what for others that wait: "put radio"
    /// @param patience how long to wait for others
    /// @param tell called once, before a wait, with the name of the lock's holder
    /// @throws TimedOut when the other programs do not end in time
    StoreLock(const Store& store, const std::string& what, std::chrono::milliseconds patience,
              const std::function<void(const std::string&)>& tell);

    class TimedOut : public Refusal {
    public:
        using Refusal::Refusal;
    };

private:
    Common::UniqueFd m_fd;
};

/// A version of a bundle.
struct Version {
    int number = 0; ///< counted from 1; 0: it was not installed by put
    std::string path;
    std::string installed; ///< RFC 3339; empty: unknown
    std::string from;      ///< the source of the installation; empty: unknown
    bool isInForce = false;
};

/// The versions of one directory of a collection. Each stays complete if the process is killed at any moment. The
/// caller holds the lock, unless it calls only Versions.
class Shelf {
public:
    /// @param directory the name in the collection
    Shelf(const Store& store, const std::string& directory);

    /// Completes the unfinished work of a former process. Must be called before any change.
    void Tidy();

    /// Makes an empty directory for a new version and returns its path.
    std::string Begin();
    /// Makes the directory a version, and writes its content to the disk. Returns its number.
    int Finish(const std::string& from);
    /// Puts the finished version into the collection, in one step. Keeps the version that it replaces. Returns that
    /// version's number; empty when there was none.
    std::optional<int> Install();
    /// Exchanges the version in force for a kept one, in one step. If none is in force, moves the kept one in.
    void Restore(int number);
    /// Moves the version in force out of the collection, in one step, and keeps it.
    void Withdraw();
    /// Removes a kept version.
    void Drop(int number);
    /// Removes the oldest kept versions, down to this number.
    void Prune(std::size_t keep);

    /// The latest first.
    std::vector<Version> Versions() const;
    /// In the collection.
    const std::string& Target() const { return m_target; }
    bool HasTarget() const;

private:
    std::string PathOf(int number) const { return m_path + "/" + std::to_string(number); }
    bool HasReplacedVersion() const;
    int HighestNumber() const;
    int KeepDisplaced(const std::string& path);
    void MoveOrExchange(const std::string& version);
    void Sync() const;

    const std::string m_collection;
    const std::string m_target;
    const std::string m_path;
};

/// The directories of the collection, present or removed, that may have kept versions.
std::vector<std::string> DirectoriesWithVersions(const Store& store);

} // namespace Put

#endif
