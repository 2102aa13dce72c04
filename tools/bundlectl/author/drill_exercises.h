#ifndef BUNDLECTL_AUTHOR_DRILL_EXERCISES_H
#define BUNDLECTL_AUTHOR_DRILL_EXERCISES_H

#include <string>
#include <vector>

namespace Trials {

/// One way to harm a bundle.
struct Exercise {
    enum Kind { UNDISTURBED, SIGNAL, STATUS, SLOW_SCRIPT, LIBRARY, EXCHANGE, FULL_LOG };

    Kind kind;
    std::string name; ///< "signal:SEGV"; those with a ":" have a group before it
    int number = 0;   ///< of a SIGNAL or a STATUS

    /// Whether it is done to each item separately.
    bool IsOfItem() const { return kind == UNDISTURBED || kind == SIGNAL || kind == STATUS; }
};

/// In the order in which they are done.
std::vector<Exercise> AllExercises();

/// The exercises with these names or groups. Names that do not exist are added to unknown.
std::vector<Exercise> ChooseExercises(const std::vector<std::string>& names, std::vector<std::string>& unknown);

/// The words that ChooseExercises accepts besides the names within the groups, for people.
std::string NamesOfExercises();

/// Whether the server promises to relaunch an item that has ended in this way.
bool IsRunAgain(bool isSignal, int number);

} // namespace Trials

#endif
