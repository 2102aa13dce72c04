#include "sockets.h"

#include "files.h"
#include "printable.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace Model {

namespace {

constexpr std::size_t TABLE_LIMIT = std::size_t{16} * 1024 * 1024;

std::vector<std::string_view> WordsOf(std::string_view line)
{
    std::vector<std::string_view> words;
    while (!line.empty()) {
        const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
        line.remove_prefix(begin);
        const std::size_t end = std::min(line.find(' '), line.size());
        if (end > 0) {
            words.push_back(line.substr(0, end));
        }
        line.remove_prefix(end);
    }
    return words;
}

template <class Visit> void ForEachLine(std::string_view text, const Visit& visit)
{
    text.remove_prefix(std::min(text.find('\n'), text.size() - (text.empty() ? 0 : 1)) +
                       (text.empty() ? 0 : 1)); // heads
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        visit(WordsOf(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::uint32_t Hex(std::string_view digits)
{
    return static_cast<std::uint32_t>(std::strtoul(std::string(digits).c_str(), nullptr, 16));
}

/// An address as the kernel writes it: 32-bit words in the machine's order, a colon, the port.
std::string Address(std::string_view text)
{
    const std::size_t colon = text.find(':');
    std::array<std::uint32_t, 4> words{};
    for (std::size_t i = 0; i < words.size() && i * 8 + 8 <= colon; ++i) {
        words[i] = Hex(text.substr(i * 8, 8));
    }
    const bool isLong = colon > 8;
    std::array<char, INET6_ADDRSTRLEN> name{};
    ::inet_ntop(isLong ? AF_INET6 : AF_INET, words.data(), name.data(), static_cast<socklen_t>(name.size()));
    const std::string port = ":" + std::to_string(Hex(text.substr(std::min(colon + 1, text.size()))));
    return isLong ? "[" + std::string(name.data()) + "]" + port : name.data() + port;
}

} // namespace

Sockets::Sockets(const Proc& proc, pid_t pid) : m_proc(proc)
{
    struct Protocol {
        const char* table;
        const char* name;
        const char* state; ///< the state in which it can be reached
    };
    constexpr std::array<Protocol, 4> protocols{
        {{"tcp", "tcp ", "0A"}, {"tcp6", "tcp ", "0A"}, {"udp", "udp ", "07"}, {"udp6", "udp ", "07"}}};
    constexpr std::size_t inode = 9;
    const std::string directory = proc.Path(pid, "net/");
    for (const Protocol& protocol : protocols) {
        ForEachLine(ReadFileAtMost(directory + protocol.table, TABLE_LIMIT).value_or(""), [&](const auto& words) {
            if (words.size() > inode && words[3] == protocol.state) {
                m_names["socket:[" + std::string(words[inode]) + "]"] = protocol.name + Address(words[1]);
            }
        });
    }
    constexpr std::size_t path = 7;
    ForEachLine(ReadFileAtMost(directory + "unix", TABLE_LIMIT).value_or(""), [&](const auto& words) {
        if (words.size() > path) {
            m_names["socket:[" + std::string(words[6]) + "]"] = "unix " + Printable(words[path]);
        }
    });
}

std::vector<std::string> Sockets::Of(pid_t pid) const
{
    std::vector<std::string> names;
    for (const auto& [number, target] : m_proc.Descriptors(pid).value_or(std::map<int, std::string>())) {
        const auto found = m_names.find(target);
        if (found != m_names.end() && std::find(names.begin(), names.end(), found->second) == names.end()) {
            names.push_back(found->second);
        }
    }
    return names;
}

} // namespace Model
