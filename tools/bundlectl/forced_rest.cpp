#include "forced_rest.h"

#include "common/unique_fd.h"
#include "model/status.h"
#include "printable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

namespace {

using Model::BundleStatus;
using Model::ItemStatus;

constexpr std::string_view RESTING_PROGRAM = "#!/bin/sh\nexit 0\n";
constexpr std::chrono::milliseconds INTERVAL{200};

const BundleStatus* Find(const std::vector<BundleStatus>& bundles, const std::string& name)
{
    const auto found = std::find_if(bundles.begin(), bundles.end(),
                                    [&name](const BundleStatus& bundle) { return bundle.name == Printable(name); });
    return found == bundles.end() ? nullptr : &*found;
}

/// The item has no process that a stop can kill at any moment.
bool IsRestless(const ItemStatus& item)
{
    const bool hasRestedLast = item.history != nullptr && !item.history->ends.empty() &&
                               item.history->ends.back().then == Model::ItemEnd::RESTS;
    return !item.isThread && !hasRestedLast &&
           (item.isCrashLooping || item.up != ItemStatus::UP || item.relaunches > 0);
}

bool MakeDirectory(const std::string& path)
{
    constexpr mode_t mode = 0755;
    return ::mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

// By a rename, because a running program cannot be written.
bool Exchange(const std::string& file)
{
    constexpr mode_t mode = 0755;
    const std::string made = file + ".resting";
    const Common::UniqueFd fd(::open(made.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    const auto size = static_cast<ssize_t>(RESTING_PROGRAM.size());
    return fd.IsOpen() && ::write(fd.Get(), RESTING_PROGRAM.data(), RESTING_PROGRAM.size()) == size &&
           ::fchmod(fd.Get(), mode) == 0 && std::rename(made.c_str(), file.c_str()) == 0;
}

std::string ExchangePrograms(const BundleStatus& bundle, std::vector<std::string>& restless)
{
    for (const ItemStatus& item : bundle.items) {
        if (!IsRestless(item)) {
            continue;
        }
        restless.push_back(item.name);
        const std::string folder = bundle.path + "/bin";
        if (!MakeDirectory(bundle.path) || !MakeDirectory(folder) || !Exchange(folder + "/" + item.name)) {
            return Printable(folder + "/" + item.name) + " cannot be exchanged: " + std::strerror(errno) + ".";
        }
    }
    return "";
}

bool AllRest(const BundleStatus& bundle, const std::vector<std::string>& restless)
{
    return std::none_of(bundle.items.begin(), bundle.items.end(), [&restless](const ItemStatus& item) {
        const bool wasRestless = std::find(restless.begin(), restless.end(), item.name) != restless.end();
        const bool rests = item.history != nullptr && !item.history->ends.empty() &&
                           item.history->ends.back().then == Model::ItemEnd::RESTS;
        return wasRestless && !rests;
    });
}

} // namespace

std::string LetItemsRest(const std::string& bundle, const Model::Choice& choice, std::chrono::seconds timeout,
                         std::string& made)
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    std::vector<std::string> restless;
    for (bool isFirst = true;; isFirst = false) {
        const auto snapshot = Model::TakeSnapshot(choice, Model::LogDepth::SERVER);
        const std::vector<BundleStatus> bundles = Model::StatusOf(*snapshot);
        const BundleStatus* const found = Find(bundles, bundle);
        if (found == nullptr) {
            return "";
        }
        if (isFirst) {
            made = ::access(found->path.c_str(), F_OK) == 0 ? "" : found->path;
            std::string trouble = ExchangePrograms(*found, restless);
            if (!trouble.empty()) {
                return trouble;
            }
        }
        if (AllRest(*found, restless)) {
            return "";
        }
        if (std::chrono::steady_clock::now() >= end) {
            return "its items do not come to rest within " + std::to_string(timeout.count()) +
                   " s, as far as the server's log tells.";
        }
        std::this_thread::sleep_for(INTERVAL);
    }
}
