#include "client/include/bundle_client.h"

namespace {

// Indexed by code.
constexpr const char* TEXTS[] = {
    "done",
    "an argument is not what the function asks for",
    "no server can be reached",
    "no answer in time",
    "the server closed the connection without a reply",
    "the reply is shorter than a header",
    "the reply's length field is not its content's length",
    "what came is no reply",
    "the server could not do it, or only in part; its log says why",
    "the server knows no bundle of that name",
    "the reply has an unknown status",
    "the event is dropped: nobody listens, or the listener has fallen behind",
    "something that is no FIFO stands in the event service's place",
    "a call of the system failed",
};
constexpr int NUMBER_OF_TEXTS = sizeof TEXTS / sizeof *TEXTS;
static_assert(NUMBER_OF_TEXTS == BUNDLE_CLIENT_SYSTEM + 1, "each code has a text");

} // namespace

const char* bundle_client_text(int code)
{
    return code >= 0 && code < NUMBER_OF_TEXTS ? TEXTS[code] : "an unknown code";
}

const char* bundle_client_version()
{
    return BUNDLE_CLIENT_VERSION;
}
