#ifndef BUNDLECTL_PUT_PLACE_H
#define BUNDLECTL_PUT_PLACE_H

#include "model/installation.h"
#include "put/store.h"

#include <chrono>
#include <optional>
#include <string>

class Arguments;

namespace Put {

/// The options that are common to the verbs that work on a collection.
struct CommonOptions {
    Model::Choice choice;
    std::string patience = "30s"; ///< for the lock and for the server's verdict
    bool json = false;
};

/// Adds those that say where it is, and --json.
void AddPlaceOptions(Arguments& arguments, CommonOptions& options);
/// Adds all.
void AddCommonOptions(Arguments& arguments, CommonOptions& options);

/// "30s" as a span. The command line has checked it.
std::chrono::milliseconds SpanOf(const std::string& text);
/// Says what is wrong with a span.
std::string FaultOfSpan(const std::string& text);

/// The collection: the option's, otherwise the server's, otherwise the installed one.
/// @throws Refusal when no collection is found
std::string CollectionOf(const Model::Choice& choice);

/// A bundle of the collection, as its manifest names it.
struct Placed {
    std::string name;
    std::string directory; ///< in the collection
    int mode = 0;
};

/// Empty when the collection has no bundle of that name.
std::optional<Placed> FindPlaced(const std::string& collection, const std::string& name);

/// " Did you mean \"radio\"?" if a bundle of the collection has a similar name, otherwise empty.
std::string SimilarName(const std::string& collection, const std::string& name);

/// Takes the lock. If it must wait, prints to standard error which program holds the lock.
StoreLock LockStore(const Store& store, const std::string& what, const CommonOptions& options);

} // namespace Put

#endif
