#ifndef BUNDLECTL_AUTHOR_DRILL_EXERCISES_H
#define BUNDLECTL_AUTHOR_DRILL_EXERCISES_H

#include <string>
#include <vector>

namespace Trials {

/// Something that is done to a bundle.
struct Exercise {
    enum Kind { UNDISTURBED, SIGNAL, STATUS, SLOW_SCRIPT, LIBRARY, EXCHANGE, FULL_LOG };

    Kind kind;
    std::string name; ///< "signal:SEGV"; those with a ":" have a group before it
    int number = 0;   ///< of a SIGNAL or a STATUS

    /// Whether it is done to each item by itself.
    bool IsOfItem() const { return kind == UNDISTURBED || kind == SIGNAL || kind == STATUS; }
};

/// In the order in which they are done.
std::vector<Exercise> AllExercises();

/// Those of these names or groups. Names that there are not are put into unknown.
std::vector<Exercise> ChooseExercises(const std::vector<std::string>& names, std::vector<std::string>& unknown);

/// The words that ChooseExercises takes besides the names within the groups, for people.
std::string NamesOfExercises();

/// Whether the server promises to run an item again that has ended so.
bool IsRunAgain(bool isSignal, int number);

} // namespace Trials

#endif
