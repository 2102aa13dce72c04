#include "known_item.h"

#include <utility>

namespace SystemServer {

void KnownItem::SetFingerprint(const ItemFingerprint& now)
{
    m_fingerprint = now;
    m_details = nullptr;
}

// The fingerprint has been taken before the details are. A change in between is in the details, and what comes later
// changes the fingerprint.
void KnownItem::Learn(const std::string& path, const ItemFingerprint& now)
{
    auto details = ItemDetails::AreNeeded(path, now) ? std::make_unique<ItemDetails>(path) : nullptr;
    m_fingerprint = now;
    m_details = std::move(details);
}

bool KnownItem::HasChanged(const std::string& path, const ItemFingerprint& now)
{
    if (now == m_fingerprint) {
        return false;
    }
    if (!m_details) {
        return true;
    }
    auto details = std::make_unique<ItemDetails>(path);
    if (m_details->HaveChanged(*details)) {
        return true;
    }
    if (details->AreComplete()) { // else what is unknown is asked for by the next scan
        m_fingerprint = now;
        m_details = std::move(details);
    }
    return false;
}

bool KnownItem::IsReplaced(const std::string& path, const ItemFingerprint& now) const
{
    const bool hasOtherNumber = !now[ROOT].IsSameFile(m_fingerprint[ROOT]);
    return hasOtherNumber && (!m_details || m_details->IsReplaced(ItemDetails(path)));
}

} // namespace SystemServer
