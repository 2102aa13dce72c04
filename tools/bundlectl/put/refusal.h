#ifndef BUNDLECTL_PUT_REFUSAL_H
#define BUNDLECTL_PUT_REFUSAL_H

#include <stdexcept>

namespace Put {

/// Why something is refused, in a sentence for people.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace Put

#endif
