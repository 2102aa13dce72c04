#ifndef TESTS_SYSTEM_SOAK_COLLECTION_H
#define TESTS_SYSTEM_SOAK_COLLECTION_H

#include "support/collection_builder.h"
#include "support/random.h"
#include "system/soak/books.h"

#include <map>
#include <string>

/// The directories of a soak's bundles, and the changes to them. Each change enters its expected effects into the
/// books.
class SoakCollection {
public:
    SoakCollection(const CollectionBuilder& collection, const CollectionBuilder& staging, SoakBooks& books,
                   Random& random)
        : m_collection(collection), m_staging(staging), m_books(books), m_random(random)
    {}

    /// Writes that many bundles beside the collection, and copies them into it.
    void Write(int count);

    void Install(SoakBundle& bundle);
    void Update(SoakBundle& bundle);
    void Touch(SoakBundle& bundle);
    void Break(SoakBundle& bundle);
    void Withdraw(SoakBundle& bundle);
    /// Moves in a directory that is no bundle, unless the server has not yet refused the one before.
    void DropInJunk();

    /// Enters a refused directory.
    void TakeRecord(const LogRecord& record);

    const Account& JunkFailures() const { return m_junkFailures; }
    int BundlesOut() const;
    std::string In(const std::string& name) const { return m_collection / name; }
    /// How often each kind of change was made.
    const std::map<std::string, int>& Counts() const { return m_counts; }

private:
    void WriteBundle(int number);

    const CollectionBuilder& m_collection;
    const CollectionBuilder& m_staging;
    SoakBooks& m_books;
    Random& m_random;
    int m_junk = 0;
    Account m_junkFailures;
    std::map<std::string, int> m_counts;
};

#endif
