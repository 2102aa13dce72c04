// The input is a packet of a client. A well-formed one goes to a running server and must get exactly one reply with the
// right status. All bundles that requests may name are restored for the next input.
#include "fuzz/fuzz_target.h"

#include "bundle_server.h"

#include "platform/host/ipc/packet.h"
#include "support/collection_builder.h"
#include "support/watcher_making.h"

#include <bundle_service.h>
#include <sprintf_s.h>

#include <sanitizer/asan_interface.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

using HostPlatform::MessageOfPacket;
using HostPlatform::MessageReference;
using HostPlatform::PacketFault;
using Poco::DirectoryWatcher;
using namespace SystemServer::BundleService;

namespace {

/// What the server has done, as seen by the platform.
struct Reply {
    lumo_header header;
    const bolt_connection* connection;
    bool hasContent;
};
std::vector<Reply> g_replies;
int g_publishedEvents = 0;

/// The server with its protected members accessible.
class OpenServer : public SystemServer::BundleServer {
public:
    using BundleServer::initialize;
    using BundleServer::OnItemAdded;
    using BundleServer::OnItemModified;
    using BundleServer::ProcessMsg;
};

/// Limits the descriptors, because launching "rm" closes every one up to the limit.
void LowerDescriptorLimit()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, 256);
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

/// A running server, for the whole process, with bundles that can be deleted and one that cannot.
class RunningServer {
public:
    RunningServer()
    {
        LowerDescriptorLimit();
        for (const auto& [directory, name] : m_deletable) {
            Write(directory, name);
        }
        Write("renamed", "before");
        WriteFile(m_outside / "server.ini", "[global]\nbundle_collection_dir = " + m_collection.Path() + "\n");
        m_server.init({"bundle_server", "-f", m_outside / "server.ini"});
        m_server.initialize(m_server);
        // A bundle that has changed its name cannot be stopped.
        Write("renamed", "after");
        const Poco::File item(m_collection / "renamed");
        m_server.OnItemModified({item, DirectoryWatcher::DW_ITEM_MODIFIED});
    }

    int ExpectedStatusOfDeleting(const std::string& name) const
    {
        if (name == "before") {
            return STATUS_BAD_REQUEST;
        }
        return DirectoryOf(name).empty() ? STATUS_NOT_FOUND : STATUS_OK;
    }

    bool IsThere(const std::string& name) const { return Exists(m_collection / DirectoryOf(name)); }

    void BringBack(const std::string& name)
    {
        const std::string directory = DirectoryOf(name);
        Write(directory, name);
        const Poco::File item(m_collection / directory);
        m_server.OnItemAdded({item, DirectoryWatcher::DW_ITEM_ADDED});
    }

    /// How many of the files that a request could remove exist.
    int CountFiles() const
    {
        int count = static_cast<int>(Exists(m_outside / "server.ini")) +
                    static_cast<int>(Exists(m_collection / "renamed/BundleManifest.ini"));
        for (const auto& [directory, bundle] : m_deletable) {
            count += static_cast<int>(Exists(m_collection / (directory + "/BundleManifest.ini")));
        }
        return count;
    }

private:
    std::string DirectoryOf(const std::string& name) const
    {
        for (const auto& [directory, bundle] : m_deletable) {
            if (bundle == name) {
                return directory;
            }
        }
        return "";
    }

    void Write(const std::string& directory, const std::string& name) const
    {
        m_collection.BundleIn(directory).Name(name).Write();
    }

    const std::map<std::string, std::string> m_deletable{
        {"media", "media"}, {"nameless", ""}, {"longest", std::string(NAME_FIELD_SIZE, 'n')}};
    const SleepyWatchers m_sleepy;
    const CollectionBuilder m_collection{};
    const TemporaryDirectory m_outside{};
    OpenServer m_server;
};

std::string NameIn(const std::string& content)
{
    return content.substr(0, content.find('\0'));
}

int ExpectedStatus(const RunningServer& server, const lumo_header& header, const std::string& content)
{
    if (header.uri != URI || (header.method & METHOD_MASK) != METHOD_DELETE_BUNDLE ||
        content.size() < NAME_FIELD_SIZE) {
        return STATUS_BAD_REQUEST;
    }
    return server.ExpectedStatusOfDeleting(NameIn(content));
}

/// The reply's status.
int Ask(const MessageReference& msg, bolt_connection& connection)
{
    g_replies.clear();
    OpenServer::ProcessMsg(msg.get(), &connection);
    Require(g_replies.size() == 1, "a request has not exactly one reply");
    const Reply& reply = g_replies[0];
    Require(reply.header.method == RESPONSE_FLAG && reply.header.kind == 0 && reply.header.uri == 0 &&
                reply.header.length == 0 && !reply.hasContent && reply.connection == &connection,
            "a reply is not a status and nothing else");
    return reply.header.status;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static RunningServer server;
    if (PacketFault(data, size) != nullptr) {
        return 0;
    }
    const MessageReference msg = MessageOfPacket(data, size);
    Require(msg != nullptr, "no message is made of a sound packet");
    const std::string content = msg->packet.substr(sizeof(lumo_header));
    const int expected = ExpectedStatus(server, msg->header, content);
    // The NUL after the content is not part of the request.
    const char* const behind = msg->packet.data() + msg->packet.size();
    ASAN_POISON_MEMORY_REGION(behind, 1);

    bolt_connection connection{77};
    g_publishedEvents = 0;
    const int before = server.CountFiles();
    Require(Ask(msg, connection) == expected, "a request has another status than it calls for");
    ASAN_UNPOISON_MEMORY_REGION(behind, 1);
    Require(g_publishedEvents == (expected == STATUS_OK ? 1 : 0), "an event is published without a delete, or none");
    Require(server.CountFiles() == before - (expected == STATUS_OK ? 1 : 0),
            "a request has taken away what is not its bundle's");
    if (expected == STATUS_OK) {
        Require(!server.IsThere(NameIn(content)), "a deleted bundle's directory is still there");
        server.BringBack(NameIn(content));
    }
    return 0;
}

// The linker sends the calls of lumo_message_async_send and of nanosleep here. The server sleeps until a copy has ended
// and until dead children are reaped. Nothing is being copied here, and the bundles run nothing.
int WrappedSend(lumo_message* msg, bolt_connection* conn, int flags) __asm__("__wrap_lumo_message_async_send");
int WrappedNanosleep(const timespec* duration, timespec* rest) __asm__("__wrap_nanosleep");

int WrappedSend(lumo_message* msg, bolt_connection* conn, int /*flags*/)
{
    void* content = nullptr;
    int length = 0;
    g_replies.push_back({msg->header, conn, lumo_content(msg, &content, &length) == 0});
    return 0;
}

int WrappedNanosleep(const timespec* /*duration*/, timespec* /*rest*/)
{
    return 0;
}

// Replaces the platform's function. It fails, so that no event reaches a listener on this machine. An event begins with
// the field of its name.
int sprintf_s(char* dest, size_t /*dest_size*/, const char* /*format*/, ...)
{
    *dest = '\0';
    ++g_publishedEvents;
    return -1;
}
