#ifndef BUNDLECTL_PUT_PLACE_H
#define BUNDLECTL_PUT_PLACE_H

#include "model/installation.h"
#include "put/store.h"

#include <chrono>
#include <optional>
#include <string>

class Arguments;

namespace Put {

/// What the verbs that change a collection have in common.
struct CommonOptions {
    Model::Choice choice;
    std::string patience = "30s"; ///< for the lock and for the server's verdict
    bool json = false;
};

void AddCommonOptions(Arguments& arguments, CommonOptions& options);

/// "30s" as a span. The command line has checked it.
std::chrono::milliseconds SpanOf(const std::string& text);
/// Says what is wrong with a span.
std::string FaultOfSpan(const std::string& text);

/// The collection that is meant: that of the option, else the server's, else the installed one.
/// @throws Refusal when there is none
std::string CollectionOf(const Model::Choice& choice);

/// A bundle of the collection, as its manifest names it.
struct Placed {
    std::string name;
    std::string directory; ///< in the collection
    int mode = 0;
};

/// Empty when the collection has no bundle of that name.
std::optional<Placed> FindPlaced(const std::string& collection, const std::string& name);

/// Takes the lock and says on standard error who else is at it.
StoreLock LockStore(const Store& store, const std::string& what, const CommonOptions& options);

} // namespace Put

#endif
