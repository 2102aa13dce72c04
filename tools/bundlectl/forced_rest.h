#ifndef BUNDLECTL_FORCED_REST_H
#define BUNDLECTL_FORCED_REST_H

#include "model/installation.h"

#include <chrono>
#include <string>

/// Stops the relaunches of a bundle's items that die again and again. A bundle cannot be stopped during the second
/// between an item's death and its relaunch. This function replaces each such item's program by one that ends with 0,
/// which causes no relaunch. If the bundle's directory has gone, it is made again for this. Waits until the server's
/// log shows that the items rest, at most as long as given. Returns a sentence about a failure; empty when the items
/// rest.
/// @param made set to the bundle's directory if that had gone and was made again
std::string LetItemsRest(const std::string& bundle, const Model::Choice& choice, std::chrono::seconds timeout,
                         std::string& made);

#endif
