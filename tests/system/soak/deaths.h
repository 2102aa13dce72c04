#ifndef TESTS_SYSTEM_SOAK_DEATHS_H
#define TESTS_SYSTEM_SOAK_DEATHS_H

#include "support/random.h"
#include "support/temporary_directory.h"
#include "system/soak/books.h"

#include <string>
#include <vector>

/// Lets items of a soak die: by a signal from the test, or by an order that the item obeys now or at its next start.
/// Each death is entered into the books first.
class SoakDeaths {
public:
    SoakDeaths(const TemporaryDirectory& notes, SoakBooks& books, Random& random)
        : m_notes(notes), m_books(books), m_random(random)
    {}

    /// Lets one item die, unless many relaunches are pending.
    void KillOne();

    /// Takes back the order for an item's next start.
    void Countermand(const SoakItem& item) const;

    int Killed() const { return m_killed; }
    int Ordered() const { return m_ordered; }

private:
    std::vector<SoakItem*> Killable();
    int RandomOrder(int percentOfFinalExits);
    std::string OrderAtStart(const SoakItem& item) const { return m_notes / ("order." + item.Name()); }

    const TemporaryDirectory& m_notes;
    SoakBooks& m_books;
    Random& m_random;
    int m_killed = 0;
    int m_ordered = 0;
};

#endif
