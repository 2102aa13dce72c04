#ifndef WAITING_BUNDLES_H
#define WAITING_BUNDLES_H

#include "bundle.h"

#include <cstddef>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <utility>

namespace SystemServer {

/// Sets a bundle's state, and sets another state if an exception ends the operation. Used under the manager's lock,
/// like everything in this file.
class StateRollback {
public:
    /// @param bundle outlives it
    StateRollback(Bundle& bundle, Bundle::BUNDLE_STATE_E meanwhile, Bundle::BUNDLE_STATE_E afterFailure)
        : m_bundle(bundle), m_afterFailure(afterFailure)
    {
        m_bundle.SetCurState(meanwhile);
    }
    ~StateRollback()
    {
        if (!m_dismissed) {
            m_bundle.SetCurState(m_afterFailure);
        }
    }
    StateRollback(const StateRollback&) = delete;
    StateRollback& operator=(const StateRollback&) = delete;

    /// Called when the operation has succeeded: the state stays as it is.
    void Dismiss() { m_dismissed = true; }

private:
    Bundle& m_bundle;
    const Bundle::BUNDLE_STATE_E m_afterFailure;
    bool m_dismissed = false;
};

/// While it lives, the bundle is in the set of bundles that are being resolved.
class ResolvingMark {
public:
    using Set = std::set<std::shared_ptr<Bundle>>;

    /// @param resolving outlives it. The bundle is not in it yet
    /// @throws std::bad_alloc
    ResolvingMark(Set& resolving, const std::shared_ptr<Bundle>& bundle)
        : m_resolving(resolving), m_position(resolving.insert(bundle).first)
    {}
    ~ResolvingMark() { m_resolving.erase(m_position); }
    ResolvingMark(const ResolvingMark&) = delete;
    ResolvingMark& operator=(const ResolvingMark&) = delete;

private:
    Set& m_resolving;
    const Set::iterator m_position;
};

/// A bundle that waits for the bundles that it requires. Undo is a StateRollback or a ResolvingMark, which undoes the
/// bundle's own step.
template <class Undo> class WaitingBundle {
public:
    /// Keeps the manifest in force, and uses it even if an update replaces it meanwhile.
    /// @param arguments of Undo's constructor
    template <class... Arguments>
    explicit WaitingBundle(std::shared_ptr<Bundle> waiting, Arguments&&... arguments)
        : bundle(std::move(waiting)), undo(std::forward<Arguments>(arguments)...), m_manifest(bundle->GetManifest())
    {}

    /// The next required bundle's name, in the manifest's order; null when there are no more. Valid as long as this
    /// object.
    const std::string* NextRequired()
    {
        const auto& names = m_manifest->GetDependencies();
        return m_next < names.size() ? &names[m_next++] : nullptr;
    }

    const std::shared_ptr<Bundle> bundle;
    Undo undo;

private:
    const std::shared_ptr<BundleManifest> m_manifest;
    std::size_t m_next = 0;
};

/// The bundles of a chain, each waiting for the one after it. They are on the heap, so that a chain of thousands does
/// not need the thread's stack. If an exception ends the operation, the last one is undone first.
template <class Undo> class WaitingBundles {
public:
    WaitingBundles() = default;
    ~WaitingBundles()
    {
        while (!IsEmpty()) {
            Pop();
        }
    }
    WaitingBundles(const WaitingBundles&) = delete;
    WaitingBundles& operator=(const WaitingBundles&) = delete;

    /// @param arguments of WaitingBundle's constructor
    /// @throws what Undo throws; nothing is added
    template <class... Arguments> void Push(Arguments&&... arguments)
    {
        m_bundles.emplace_back(std::forward<Arguments>(arguments)...);
    }
    /// Both need a waiting bundle. Pop undoes its step, unless that is dismissed.
    void Pop() { m_bundles.pop_back(); }
    WaitingBundle<Undo>& Last() { return m_bundles.back(); }
    bool IsEmpty() const { return m_bundles.empty(); }

private:
    std::deque<WaitingBundle<Undo>> m_bundles;
};

} // namespace SystemServer

#endif
