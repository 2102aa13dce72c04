#include "system/soak/books.h"

#include "system/soak/orders.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <tuple>

namespace {

bool EndsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The part of the text between the two; empty when one of them is missing.
std::string Between(const std::string& text, const std::string& begin, const std::string& end)
{
    const bool fits = text.size() >= begin.size() + end.size() && text.rfind(begin, 0) == 0 && EndsWith(text, end);
    return fits ? text.substr(begin.size(), text.size() - begin.size() - end.size()) : "";
}

void ShowIfOpen(const std::string& whose, const char* what, const Account& account)
{
    if (!account.Balances()) {
        ADD_FAILURE() << whose << ": " << what << " due " << account.due << ", seen " << account.seen;
    }
}

} // namespace

bool SoakItem::Balances() const
{
    return starts.Balances() && relaunches.Balances() && finalExits.Balances() && stops.Balances();
}

bool SoakBundle::HasRestingItem() const
{
    return std::any_of(items.begin(), items.end(), [](const SoakItem* item) { return item->pid == 0; });
}

bool SoakBundle::Balances() const
{
    return starts.Balances() && failedUpdates.Balances() && unloads.Balances() &&
           std::all_of(items.begin(), items.end(), [](const SoakItem* item) { return item->Balances(); });
}

bool LeadsToRelaunch(int order)
{
    return order < 0 || std::find(RELAUNCHING.begin(), RELAUNCHING.end(), order) != RELAUNCHING.end();
}

SoakBundle& SoakBooks::AddBundle(const std::string& name)
{
    SoakBundle& bundle = m_bundles.emplace_back();
    bundle.name = name;
    return bundle;
}

SoakItem& SoakBooks::AddItem(SoakBundle& bundle, const std::string& name, const std::string& program)
{
    SoakItem& item = m_items.emplace_back();
    item.process = bundle.name + "." + name;
    item.program = program;
    bundle.items.push_back(&item);
    m_itemOfProcess[item.process] = &item;
    m_itemOfName[name] = &item;
    return item;
}

// ---- What is due ----

void SoakBooks::ExpectStart(SoakBundle& bundle)
{
    ++bundle.starts.due;
    for (SoakItem* const item : bundle.items) {
        ++item->starts.due;
    }
}

void SoakBooks::ExpectStop(SoakBundle& bundle)
{
    for (SoakItem* const item : bundle.items) {
        if (item->pid == 0) {
            continue;
        }
        const std::string text = item->process + "[" + std::to_string(item->pid) + "] abnormal termination, signal: 9.";
        Expect("INFO " + text);
        Expect("ERROR " + text);
        Expect("INFO normal stop " + item->process + "...");
        ++item->stops.due;
        item->pid = 0;
        ++m_stoppedItems;
    }
}

void SoakBooks::ExpectDeath(SoakItem& item, int order)
{
    const std::string who = item.process + "[" + std::to_string(item.pid) + "]";
    const std::string number = std::to_string(std::abs(order));
    const bool isSignal = order < 0;
    item.pid = 0;
    if (isSignal) {
        Expect("INFO " + who + " abnormal termination, signal: " + number + ".");
        Expect("ERROR " + who + " abnormal termination, signal: " + number + ".");
        Expect("INFO relaunch " + item.process + "...");
    } else {
        Expect("INFO " + who + " normal termination, exit status: " + number + ".");
    }
    if (!LeadsToRelaunch(order)) {
        Expect("INFO " + who + " does not need relaunch with exit status [" + number + "].");
        ++item.finalExits.due;
        return;
    }
    if (!isSignal) {
        Expect("INFO " + who + " exit status [" + number + "] need relaunch and now " + item.process +
               " is relaunching ...");
    }
    Expect("INFO " + item.process + " relaunch done.");
    ++item.relaunches.due;
    ++item.starts.due;
}

// ---- What is seen ----

void SoakBooks::TakeStart(const std::string& line)
{
    pid_t pid = 0;
    std::string name;
    std::string order;
    std::istringstream(line) >> pid >> name >> order;
    SoakItem& item = *m_itemOfName.at(name);
    EXPECT_EQ(item.pid, 0) << item.process << " runs twice";
    EXPECT_LT(item.starts.seen, item.starts.due) << item.process << " was started, and nothing called for it";
    ++item.starts.seen;
    item.pid = pid;
    if (order != NO_ORDER) {
        ++m_deathsAtStart;
        ExpectDeath(item, std::stoi(order));
    }
}

void SoakBooks::TakeRecord(const LogRecord& record)
{
    TakeRecordOfItem(record);
    TakeRecordOfBundle(record.message);
}

void SoakBooks::TakeRecordOfItem(const LogRecord& record)
{
    const std::string& message = record.message;
    Account SoakItem::*account = nullptr;
    std::string process;
    if (const std::string relaunched = Between(message, "", " relaunch done."); !relaunched.empty()) {
        account = &SoakItem::relaunches;
        process = relaunched;
    } else if (const std::string stopped = Between(message, "normal stop ", "..."); !stopped.empty()) {
        account = &SoakItem::stops;
        process = stopped;
    } else if (message.find("] does not need relaunch with exit status [") != std::string::npos) {
        account = &SoakItem::finalExits;
        process = message.substr(0, message.find('['));
    } else if (message.find(" termination, ") == std::string::npos && message.rfind("relaunch ", 0) != 0 &&
               message.find("] need relaunch and now ") == std::string::npos) {
        return;
    }
    --m_recordsDue[record.level + " " + message];
    if (account != nullptr) {
        ++(m_itemOfProcess.at(process)->*account).seen;
    }
}

void SoakBooks::TakeRecordOfBundle(const std::string& message)
{
    for (const auto& [begin, end, account] :
         {std::tuple("bundle[", "] state changing[Starting] -> [Active]", &SoakBundle::starts),
          std::tuple("update bundle[", "] failed.", &SoakBundle::failedUpdates),
          std::tuple("unload bundle[", "]...", &SoakBundle::unloads)}) {
        const std::string name = Between(message, begin, end);
        const auto bundle = std::find_if(m_bundles.begin(), m_bundles.end(),
                                         [&name](const SoakBundle& candidate) { return candidate.name == name; });
        if (bundle != m_bundles.end()) {
            ++((*bundle).*account).seen;
        }
    }
}

// ---- Both together ----

bool SoakBooks::Balance() const
{
    return std::all_of(m_bundles.begin(), m_bundles.end(), [](const SoakBundle& b) { return b.Balances(); });
}

int SoakBooks::RelaunchesDue() const
{
    int due = 0;
    for (const SoakItem& item : m_items) {
        due += item.relaunches.due - item.relaunches.seen;
    }
    return due;
}

int SoakBooks::RelaunchesSeen() const
{
    int seen = 0;
    for (const SoakItem& item : m_items) {
        seen += item.relaunches.seen;
    }
    return seen;
}

void SoakBooks::ShowOpenAccounts() const
{
    for (const SoakItem& item : m_items) {
        ShowIfOpen(item.process, "starts", item.starts);
        ShowIfOpen(item.process, "relaunches", item.relaunches);
        ShowIfOpen(item.process, "final exits", item.finalExits);
        ShowIfOpen(item.process, "stops", item.stops);
    }
    for (const SoakBundle& bundle : m_bundles) {
        ShowIfOpen(bundle.name, "starts", bundle.starts);
        ShowIfOpen(bundle.name, "failed updates", bundle.failedUpdates);
        ShowIfOpen(bundle.name, "unloads", bundle.unloads);
    }
}

void SoakBooks::ExpectBalance() const
{
    for (const auto& [record, due] : m_recordsDue) {
        EXPECT_EQ(due, 0) << "records due less records written: " << record;
    }
    ShowOpenAccounts();
}
