#include "known_item.h"

#include <utility>

namespace SystemServer {

void KnownItem::SetFingerprint(const ItemFingerprint& now)
{
    m_fingerprint = now;
    m_details = nullptr;
}

// The fingerprint was taken before the details. The details contain a change in between, and a later change alters the
// fingerprint.
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
    if (details->AreComplete()) { // otherwise the next scan takes the details again
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
