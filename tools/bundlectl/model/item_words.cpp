#include "file_check.h"
#include "refusal_words.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Model {

namespace {

/// Collects the reasons about the items of one bundle.
class ItemInquiry {
public:
    ItemInquiry(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles)
        : m_snapshot(snapshot), m_bundle(bundle), m_checkFiles(checkFiles)
    {}

    std::vector<Reason> Run()
    {
        for (const ItemStatus& item : m_bundle.items) {
            if (item.isCrashLooping) {
                AddCrashLoop(item);
            } else if (item.up == ItemStatus::DOWN) {
                AddDown(item);
            }
            AddMarks(item);
        }
        return std::move(m_reasons);
    }

private:
    Reason& Add(const char* kind, std::string text, std::string brief, std::string remedy)
    {
        return AddReason(m_reasons, kind, std::move(text), std::move(brief), std::move(remedy));
    }

    std::string Ago(Time time) const { return SpanText(m_snapshot.taken - time) + " ago"; }
    std::string Restart() const { return "touch " + m_bundle.path + " (restarts the bundle)"; }

    void AddCrashLoop(const ItemStatus& item);
    void AddDown(const ItemStatus& item);
    void AddExecution(const ItemStatus& item);
    void AddEnd(const ItemStatus& item, const ItemEnd& end);
    void AddThread(const ItemStatus& item);
    void AddMarks(const ItemStatus& item);
    bool AddFileFault(const ItemStatus& item);

    const Snapshot& m_snapshot;
    const BundleStatus& m_bundle;
    const bool m_checkFiles;
    std::vector<Reason> m_reasons;
};

// What the log does not show comes from the present file. The text says so.
bool ItemInquiry::AddFileFault(const ItemStatus& item)
{
    if (!m_checkFiles || m_bundle.declared == nullptr) {
        return false;
    }
    const auto& items = m_bundle.declared->items;
    const auto declared = std::find_if(items.begin(), items.end(),
                                       [&item](const DeclaredItem& candidate) { return candidate.name == item.name; });
    const auto fault = declared == items.end() ? std::nullopt : CheckItem(*declared, item.isThread);
    if (fault) {
        Add("file", fault->text, item.name + ": " + fault->text, fault->remedy).isRecomputed = true;
    }
    return fault.has_value();
}

void ItemInquiry::AddCrashLoop(const ItemStatus& item)
{
    const ItemHistory& history = *item.history;
    const std::string last = history.ends.empty() ? std::string() : NameOfEnd(history.ends.back());
    const std::string often = std::to_string(item.relaunches) + (item.relaunches == 1 ? " relaunch" : " relaunches");
    Reason& reason =
        Add("crash-loop",
            "The item " + item.name + " dies again and again: " + often + " in the last hour" +
                (last.empty() ? "" : ", the last end was " + last + ", " + Ago(history.ends.back().time)) + ".",
            item.name + " crash loop" + (last.empty() ? "" : ", " + last),
            "Correct it. Or overwrite its file with a program that ends with status 0, then: bundlectl delete " +
                m_bundle.name);
    if (!history.ends.empty()) {
        reason.evidence = {history.ends.back().line};
    }
    AddFileFault(item);
}

void ItemInquiry::AddDown(const ItemStatus& item)
{
    if (!m_snapshot.installation.server) {
        AddFileFault(item);
    } else if (item.isThread) {
        AddThread(item);
    } else if (item.history == nullptr) {
        Add("item-unknown", "The item " + item.name + " has no process, and the log does not tell why.",
            item.name + " has no process", Restart());
        AddFileFault(item);
    } else if (item.history->executeError != 0) {
        AddExecution(item);
    } else if (!item.history->ends.empty()) {
        AddEnd(item, item.history->ends.back());
    } else {
        Add("item-unknown", "The item " + item.name + " has no process, and the log tells of no end.",
            item.name + " has no process", Restart());
        AddFileFault(item);
    }
}

void ItemInquiry::AddExecution(const ItemStatus& item)
{
    const std::string error = std::strerror(item.history->executeError);
    Reason& reason = Add("execute-failed", "The item " + item.name + " could not be executed: " + error + ".",
                         item.name + ": " + error, Restart());
    if (!item.history->ends.empty()) {
        reason.evidence = {item.history->ends.back().line};
    }
    const std::size_t index = m_reasons.size() - 1;
    if (AddFileFault(item)) {
        m_reasons[index].remedy.clear(); // the file's remedy is better
    }
}

void ItemInquiry::AddEnd(const ItemStatus& item, const ItemEnd& end)
{
    std::string text = "The item " + item.name + " ended " + Ago(end.time) + " with " + NameOfEnd(end);
    std::string remedy = Restart();
    if (end.then == ItemEnd::RESTS) {
        text += ", which asks for no relaunch.";
    } else if (end.then == ItemEnd::STOPPED) {
        text += ": the server stopped it.";
    } else if (end.then == ItemEnd::RELAUNCHED) {
        text += ", and is being run again.";
        remedy.clear();
    } else {
        text += ".";
    }
    Add("item-ended", text, item.name + " ended, " + NameOfEnd(end), remedy).evidence = {end.line};
    if (end.isSignal || end.number != 0) {
        AddFileFault(item);
    }
}

void ItemInquiry::AddThread(const ItemStatus& item)
{
    if (item.history == nullptr || item.history->failure.empty()) {
        Add("thread-gone", "The item " + item.name + " has no thread.", item.name + " has no thread", Restart());
    } else {
        Add("thread-failed", "The item " + item.name + " failed: " + item.history->failure, item.name + " failed",
            Restart())
            .evidence = {item.history->launchLine};
    }
    AddFileFault(item);
}

void ItemInquiry::AddMarks(const ItemStatus& item)
{
    if (!item.further.empty()) {
        Add("runs-twice",
            "The item " + item.name + " runs more than once: also as process " + std::to_string(item.further.front()) +
                ", which this server does not supervise.",
            item.name + " runs twice", "end process " + std::to_string(item.further.front()));
    }
    if (item.process != nullptr && item.process->isReplaced) {
        Add("program-replaced", "The item " + item.name + " runs a program file that has been replaced since.",
            item.name + " runs an old program", Restart());
    }
}

} // namespace

std::vector<Reason> ReasonsOfItems(const Snapshot& snapshot, const BundleStatus& bundle, bool checkFiles)
{
    return ItemInquiry(snapshot, bundle, checkFiles).Run();
}

} // namespace Model
