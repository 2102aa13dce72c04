#ifndef BUNDLECTL_FORCED_REST_H
#define BUNDLECTL_FORCED_REST_H

#include "model/installation.h"

#include <chrono>
#include <string>

/// Lets the items of a bundle rest that die again and again: a bundle cannot be stopped in the second in which one of
/// its items is dead and not launched again. The program of each such item is exchanged for one that ends with 0, which
/// asks for no relaunch; a directory that has gone is made again for it. Waits until the server's log tells that they
/// rest, at most as long as is said. Returns a sentence about what went wrong, empty when they rest.
/// @param made set to the directory of the bundle when that had gone and was made again
std::string LetItemsRest(const std::string& bundle, const Model::Choice& choice, std::chrono::seconds timeout,
                         std::string& made);

#endif
