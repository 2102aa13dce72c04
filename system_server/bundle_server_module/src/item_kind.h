#ifndef ITEM_KIND_H
#define ITEM_KIND_H

#include <cstddef>
#include <string>

namespace SystemServer {

/// How an item is run. The last three characters of its name decide, byte for byte.
enum class ItemKind {
    LIBRARY,  ///< ".so"
    SCRIPT,   ///< ".sh"
    BINARY,   ///< any other
    TOO_SHORT ///< the name has no three characters
};

inline ItemKind KindOf(const std::string& itemName)
{
    constexpr std::size_t suffixLength = 3;
    if (itemName.length() < suffixLength) {
        return ItemKind::TOO_SHORT;
    }
    const std::string suffix = itemName.substr(itemName.length() - suffixLength);
    if (suffix == ".so") {
        return ItemKind::LIBRARY;
    }
    return suffix == ".sh" ? ItemKind::SCRIPT : ItemKind::BINARY;
}

} // namespace SystemServer

#endif
