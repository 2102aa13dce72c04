#ifndef BUNDLECTL_PUT_REFUSAL_H
#define BUNDLECTL_PUT_REFUSAL_H

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Put {

/// A verb refuses to continue. The text is a sentence for people that names the object and, if possible, the remedy.
class Refusal : public std::runtime_error {
public:
    /// @param details further sentences, which are shown before the text
    explicit Refusal(const std::string& text, std::vector<std::string> details = {})
        : std::runtime_error(text), m_details(std::move(details))
    {}

    const std::vector<std::string>& Details() const { return m_details; }

private:
    std::vector<std::string> m_details;
};

} // namespace Put

#endif
