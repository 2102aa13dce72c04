#ifndef BUNDLECTL_VERBS_PLACES_H
#define BUNDLECTL_VERBS_PLACES_H

#include "model/status.h"
#include "output/terminal.h"

#include <string>
#include <string_view>
#include <vector>

class Arguments;

/// What verbs have in common: their options, their notes, their complaints.
namespace Verbs {

/// Adds --config, --collection and --log.
void AddPlaces(Arguments& arguments, Model::Choice& choice);
void AddJson(Arguments& arguments, bool& json);
void AddName(Arguments& arguments, std::string& name, bool isRequired);

/// What is wrong with a point in time that somebody has typed; empty: nothing.
std::string FaultOfTime(const std::string& text);

/// Writes a sentence each to standard error: what could not be seen.
void TellNotes(const std::vector<std::string>& notes);

/// Writes to standard output. Returns the exit status, or another one when standard output takes no more.
int Print(const std::string& text, int status);

/// The bundles of that name. A directory whose manifest gives no name goes by its own.
std::vector<const Model::BundleStatus*> FindByName(const std::vector<Model::BundleStatus>& bundles,
                                                   const std::string& name);

/// Says on standard error that there is no bundle of that name. Returns the exit status.
int TellUnknown(const std::string& name, const std::vector<Model::BundleStatus>& bundles);

/// The last part of the path of a bundle's directory.
std::string_view DirectoryName(const Model::BundleStatus& bundle);

/// Its name; of a directory whose manifest gives none, its own and a "/".
std::string NameToShow(const Model::BundleStatus& bundle);

/// "process", "thread", or the number of a mode that there is not.
std::string NameOfMode(int mode);

} // namespace Verbs

#endif
