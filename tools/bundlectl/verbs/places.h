#ifndef BUNDLECTL_VERBS_PLACES_H
#define BUNDLECTL_VERBS_PLACES_H

#include "model/status.h"
#include "output/terminal.h"

#include <string>
#include <string_view>
#include <vector>

class Arguments;

/// The options, notes and error messages that verbs share.
namespace Verbs {

/// Adds --config, --collection and --log.
void AddPlaces(Arguments& arguments, Model::Choice& choice);
void AddJson(Arguments& arguments, bool& json);
void AddName(Arguments& arguments, std::string& name, bool isRequired);

/// The fault of a typed point in time; empty: valid.
std::string FaultOfTime(const std::string& text);

/// Writes the notes about what could not be read to standard error, one sentence each.
void TellNotes(const std::vector<std::string>& notes);

/// Writes to standard output. Returns the given exit status, or a failure when standard output cannot be written.
int Print(const std::string& text, int status);

/// The bundles of that name. A directory whose manifest has no name uses its own name.
std::vector<const Model::BundleStatus*> FindByName(const std::vector<Model::BundleStatus>& bundles,
                                                   const std::string& name);

/// Prints to standard error that no bundle has this name. Prints nothing if the bundles are not known, because a note
/// has said so. Returns the exit status.
int TellUnknown(const std::string& name, const Model::Snapshot& snapshot,
                const std::vector<Model::BundleStatus>& bundles);

/// The last part of the path of a bundle's directory.
std::string_view DirectoryName(const Model::BundleStatus& bundle);

/// The bundle's name. If the manifest has none, the directory's name and a "/".
std::string NameToShow(const Model::BundleStatus& bundle);

/// "process", "thread", or the number of an unknown mode.
std::string NameOfMode(int mode);

} // namespace Verbs

#endif
