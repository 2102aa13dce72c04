#include "system/soak/deaths.h"

#include "support/files.h"
#include "system/soak/orders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iterator>

namespace {

constexpr int MOST_RELAUNCHES_DUE = 8;

} // namespace

std::vector<SoakItem*> SoakDeaths::Killable()
{
    std::vector<SoakItem*> killable;
    for (SoakBundle& bundle : m_books.Bundles()) {
        // A child that the server is about to stop may die either way. The books could not tell which death to expect.
        if (bundle.isIn && bundle.starts.Balances() && !bundle.isDeletionRequested) {
            std::copy_if(bundle.items.begin(), bundle.items.end(), std::back_inserter(killable),
                         [](const SoakItem* item) { return item->pid != 0; });
        }
    }
    return killable;
}

int SoakDeaths::RandomOrder(int percentOfFinalExits)
{
    if (m_random.InPercent(percentOfFinalExits)) {
        return m_random.OneOf(FINAL);
    }
    return m_random.InPercent(30) ? m_random.OneOf(RELAUNCHING) : -m_random.OneOf(SIGNALS);
}

void SoakDeaths::KillOne()
{
    const std::vector<SoakItem*> killable = Killable();
    if (killable.empty() || m_books.RelaunchesDue() >= MOST_RELAUNCHES_DUE) {
        return;
    }
    SoakItem& item = *m_random.OneOf(killable);
    const int order = RandomOrder(10);
    if (LeadsToRelaunch(order) && m_random.InPercent(15)) {
        WriteFile(m_notes / "draft", std::to_string(RandomOrder(20)));
        std::filesystem::rename(m_notes / "draft", OrderAtStart(item));
    }
    const pid_t pid = item.pid;
    m_books.ExpectDeath(item, order);
    if (order >= 0 || m_random.InPercent(40)) {
        ++m_ordered;
        sigval value{};
        value.sival_int = order;
        EXPECT_EQ(::sigqueue(pid, SIGUSR1, value), 0) << item.process;
    } else {
        ++m_killed;
        EXPECT_EQ(::kill(pid, -order), 0) << item.process;
    }
}

void SoakDeaths::Countermand(const SoakItem& item) const
{
    std::filesystem::remove(OrderAtStart(item));
}
