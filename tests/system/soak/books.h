#ifndef TESTS_SYSTEM_SOAK_BOOKS_H
#define TESTS_SYSTEM_SOAK_BOOKS_H

#include "support/log_record.h"

#include <sys/types.h>

#include <deque>
#include <map>
#include <string>
#include <vector>

/// How often something must happen, and how often it was seen.
struct Account {
    int due = 0;
    int seen = 0;
    bool Balances() const { return due == seen; }
};

struct SoakItem {
    std::string process; // the bundle's and the item's name, as the log has it
    std::string program;
    pid_t pid = 0; // 0 while it does not run
    Account starts;
    Account relaunches;
    Account finalExits; // those that lead to no relaunch
    Account stops;

    std::string Name() const { return program.substr(program.rfind('/') + 1); }
    bool Balances() const;
};

struct SoakBundle {
    std::string name;
    std::vector<SoakItem*> items;
    Account starts;
    Account failedUpdates;
    Account unloads;
    bool isIn = true;      // its directory is in the collection
    bool isBroken = false; // its manifest is broken
    bool isDeletionRequested = false;

    bool HasRestingItem() const;
    bool Balances() const;
};

/// What a soak expects of the server, and what it has seen of it. The test knows of each death because it has caused it
/// or the item has announced it. So each record and each start of a process is due exactly once.
///
/// An order says how an item ends: an exit status, or the negative number of a signal.
class SoakBooks {
public:
    SoakBundle& AddBundle(const std::string& name);
    SoakItem& AddItem(SoakBundle& bundle, const std::string& name, const std::string& program);
    std::deque<SoakBundle>& Bundles() { return m_bundles; }
    const std::deque<SoakItem>& Items() const { return m_items; }

    /// Enters what must follow the event.
    void ExpectStart(SoakBundle& bundle);
    void ExpectStop(SoakBundle& bundle);
    void ExpectFailedUpdate(SoakBundle& bundle) { ++bundle.failedUpdates.due; }
    void ExpectUnload(SoakBundle& bundle) { ++bundle.unloads.due; }
    void ExpectDeath(SoakItem& item, int order);

    /// Enters what was seen: a record of the daemon's log, and a line of the items' file of starts.
    void TakeRecord(const LogRecord& record);
    void TakeStart(const std::string& line);

    bool Balance() const;
    int RelaunchesDue() const;
    int RelaunchesSeen() const;
    int StoppedItems() const { return m_stoppedItems; }
    int DeathsAtStart() const { return m_deathsAtStart; }

    /// Adds a failure for each account that does not balance.
    void ShowOpenAccounts() const;
    /// The same, and a failure for each record that is missing or written too often.
    void ExpectBalance() const;

private:
    void Expect(const std::string& levelAndMessage) { ++m_recordsDue[levelAndMessage]; }
    void TakeRecordOfItem(const LogRecord& record);
    void TakeRecordOfBundle(const std::string& message);

    std::deque<SoakItem> m_items;
    std::deque<SoakBundle> m_bundles;
    std::map<std::string, SoakItem*> m_itemOfProcess;
    std::map<std::string, SoakItem*> m_itemOfName;
    std::map<std::string, int> m_recordsDue; // by level and message: due less seen
    int m_stoppedItems = 0;
    int m_deathsAtStart = 0;
};

/// Whether an item that ends by this order is relaunched.
bool LeadsToRelaunch(int order);

#endif
