#ifndef BUNDLECTL_PUT_REFUSAL_H
#define BUNDLECTL_PUT_REFUSAL_H

#include <stdexcept>

namespace Put {

/// A verb refuses to go on. The text is a sentence for people, which names the object and, where possible, the way out.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace Put

#endif
