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
/// It lies on the collection's file system, so that a version gets into the collection in one step, and outside of the
/// collection, so that the server does not see it.
class Store {
public:
    /// Makes the directory where it is missing. @throws Refusal when it cannot lie beside the collection
    explicit Store(const std::string& collection);

    const std::string& Collection() const { return m_collection; } ///< absolute, without links
    const std::string& Path() const { return m_path; }

private:
    std::string m_collection;
    std::string m_path;
};

/// One at a time works on a collection. Kept until the object's end; a process that ends gives it up.
class StoreLock {
public:
    /// @param what for others that wait: "put radio"
    /// @param patience how long to wait for others
    /// @param tell called once with who is at it, before a wait
    /// @throws TimedOut when the others do not end in time
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
    std::string from;      ///< what it was installed from; empty: unknown
    bool isInForce = false;
};

/// The versions of one directory of a collection. Each is whole, whenever the process is killed. The caller holds the
/// lock.
class Shelf {
public:
    /// @param directory the name in the collection
    Shelf(const Store& store, const std::string& directory);

    /// Finishes what a former process has left half done. Comes first.
    void Tidy();

    /// Makes an empty directory for a new version and returns its path.
    std::string Begin();
    /// Makes the directory a version: what is in it is on the disk afterwards. Returns its number.
    int Finish(const std::string& from);
    /// Puts the finished version into the collection, in one step. The one that it takes the place of is kept. Returns
    /// the number of that one; empty when there was none.
    std::optional<int> Install();
    /// Exchanges the version in force for a kept one, in one step; where none is in force, moves it in.
    void Restore(int number);
    /// Takes the version in force out of the collection, in one step, and keeps it.
    void Withdraw();
    /// Removes a kept version.
    void Drop(int number);
    /// Removes the oldest kept versions but so many.
    void Prune(std::size_t keep);

    /// The latest first.
    std::vector<Version> Versions() const;
    /// In the collection.
    const std::string& Target() const { return m_target; }
    bool HasTarget() const;

private:
    std::string PathOf(int number) const { return m_path + "/" + std::to_string(number); }
    int HighestNumber() const;
    int KeepDisplaced(const std::string& path);
    void MoveOrExchange(const std::string& version);
    void Sync() const;

    const std::string m_collection;
    const std::string m_target;
    const std::string m_path;
};

/// The directories of the collection, present or removed, of which versions may be kept.
std::vector<std::string> DirectoriesWithVersions(const Store& store);

} // namespace Put

#endif
