#ifndef BUNDLECTL_PUT_REFUSAL_H
#define BUNDLECTL_PUT_REFUSAL_H

#include <stdexcept>

namespace Put {

/// A verb refuses to continue. The text is a sentence for people that names the object and, if possible, the remedy.
class Refusal : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

} // namespace Put

#endif
