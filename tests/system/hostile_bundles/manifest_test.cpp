// Bad manifests of every kind. They are in the collection when the server starts, are dropped in while it runs, or
// replace a good one.

#include "system/hostile_bundles/hostile_bundle.h"

#include "support/scale.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t MEBIBYTE = std::size_t{1024} * 1024;
constexpr const char TOO_LONG[] = "Bad data format: bundle manifest is longer than 1048576 bytes";
constexpr const char TOO_LARGE[] = "Bad data format: bundle manifest expands to more than 4194304 bytes";
constexpr const char NO_NAME[] = "Not found: global.bundle_name";
constexpr const char NO_FILE[] = "File not found: [./BundleManifest.ini] not found.";
constexpr const char CIRCLE[] = "Circular reference: Too many property references encountered";

enum class Outcome {
    LOADED,  // the detail is the bundle's name in the log
    REFUSED, // the detail is the reason
    NO_ACTIVATOR,
    UNRESOLVED // the detail is the reason; the bundle has the directory's name
};

struct HostileManifest {
    std::string name; // of the directory
    Outcome outcome;
    std::string detail;
    std::function<void(const std::string& path)> write;
};
using Corpus = std::vector<HostileManifest>;

std::string Global(const std::string& name, const std::string& rest = "")
{
    return "[global]\nbundle_name = " + name + "\nbundle_load_mode = 0\n" + rest;
}

std::string Repeat(int count, const std::function<std::string(int)>& piece)
{
    std::string text;
    for (int i = 0; i < count; ++i) {
        text += piece(i);
    }
    return text;
}

std::string Noise(std::size_t size)
{
    std::mt19937 random(20261121); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same noise each time
    std::string text(size, '\0');
    for (char& character : text) {
        character = static_cast<char>(random());
    }
    return text;
}

/// A chain of that many keys, each of which refers to the next. The last one is x.
std::string ChainOfReferences(int length, int times)
{
    return Repeat(length,
                  [times](int i) {
                      std::string next = "${global.key" + std::to_string(i + 1) + "}";
                      return "key" + std::to_string(i) + " = " + Repeat(times, [&next](int) { return next; }) + "\n";
                  }) +
           "key" + std::to_string(length) + " = x\n";
}

/// As many keys of four letters as fit into a manifest, in a section whose name takes half of it.
std::string ManyKeysInALongSection()
{
    std::string text = Global("hoarder") + "[" + std::string(MEBIBYTE / 2, 's') + "]\n";
    for (char a = 'a'; a <= 'z'; ++a) {
        for (char b = 'a'; b <= 'z'; ++b) {
            for (char c = 'a'; c <= 'z' && text.size() < MEBIBYTE - 1000; ++c) {
                text += Repeat(26, [&](int d) { return std::string{a, b, c, static_cast<char>('a' + d), '\n'}; });
            }
        }
    }
    return text;
}

std::string WithMode(const std::string& mode)
{
    return "[global]\nbundle_name = moody\nbundle_load_mode = " + mode + "\n";
}

void WriteSparse(const std::string& path)
{
    WriteFile(path, Global("giant"));
    fs::resize_file(path, std::uintmax_t{1} << 30U);
}

void MakeSocket(const std::string& path)
{
    // Through a short name, because a socket address has room for a hundred characters.
    const int directory = ::open(fs::path(path).parent_path().c_str(), O_PATH | O_CLOEXEC);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "/proc/self/fd/" + std::to_string(directory) + "/BundleManifest.ini";
    std::strncpy(address.sun_path, name.c_str(), sizeof(address.sun_path) - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ::close(fd);
    ::close(directory);
}

/// In one step. One of the two must not be a directory.
void Replace(const std::string& from, const std::string& to)
{
    if (fs::is_directory(fs::symlink_status(from)) || fs::is_directory(fs::symlink_status(to))) {
        fs::remove_all(to);
    }
    fs::rename(from, to);
}

HostileManifest Text(const std::string& name, Outcome outcome, const std::string& detail, const std::string& text)
{
    return {name, outcome, detail, [text](const std::string& path) { WriteFile(path, text); }};
}

HostileManifest Link(const std::string& name, const std::string& reason, const std::string& target)
{
    return {name, Outcome::REFUSED, reason, [target](const std::string& path) { fs::create_symlink(target, path); }};
}

std::string NotRegular(const std::string& directory)
{
    return "Cannot open file: not a regular file: " + directory + "/BundleManifest.ini";
}

Corpus Contents()
{
    const std::string atTheBound = Global("bound");
    return {
        Text("noise", Outcome::REFUSED, NO_NAME, Noise(std::size_t{64} * 1024)),
        Text("noise-behind", Outcome::REFUSED, "", Global("noise") + Noise(std::size_t{64} * 1024)),
        Text("empty", Outcome::REFUSED, NO_NAME, ""),
        {"giant", Outcome::REFUSED, TOO_LONG, WriteSparse},
        Text("bound", Outcome::LOADED, "bound", atTheBound + ";" + std::string(MEBIBYTE - atTheBound.size() - 1, 'x')),
        Text("beyond", Outcome::REFUSED, TOO_LONG, atTheBound + ";" + std::string(MEBIBYTE - atTheBound.size(), 'x')),
        Text("one-line", Outcome::LOADED, "one-line", Global("one-line", "key = " + std::string(MEBIBYTE - 100, 'x'))),
        Text("no-line", Outcome::REFUSED, NO_NAME, std::string(MEBIBYTE, 'x')),
        Text("sections", Outcome::LOADED, "sections",
             Global("sections") + Repeat(100'000, [](int i) { return "[" + std::to_string(i) + "]\n"; })),
        Text("items", Outcome::NO_ACTIVATOR, "",
             WithMode("2") + Repeat(5'000, [](int i) { return "[" + std::to_string(i) + "]\nitem_name = abc\n"; })),
        Text("hoarder", Outcome::REFUSED, TOO_LARGE, ManyKeysInALongSection()),
        Text("nul", Outcome::LOADED, "nu", Global(std::string("nu\0l", 4))),
        Text("dos", Outcome::LOADED, "dos", "[global]\r\nbundle_name = dos\r\nbundle_load_mode = 0\r\n"),
        Text("marked", Outcome::REFUSED, NO_NAME, "\xEF\xBB\xBF" + Global("marked")),
        Text("latin", Outcome::LOADED, "caf\xE9", Global("caf\xE9")),
        Text("control", Outcome::LOADED, "a\\033[2Jb\\tc", Global("a\x1B[2Jb\tc")),
        Text("percent", Outcome::LOADED, "%s%n%500d%", Global("%s%n%500d%")),
        Text("slashes", Outcome::LOADED, "../../etc", Global("../../etc")),
        Text("long-name", Outcome::LOADED, std::string(3000, 'n'), Global(std::string(4096, 'n'))),
        Text("nameless", Outcome::LOADED, "]", Global("")),
    };
}

Corpus References()
{
    return {
        Text("itself", Outcome::REFUSED, CIRCLE, Global("${global.bundle_name}")),
        Text("each-other", Outcome::REFUSED, CIRCLE,
             Global("${global.one}", "one = ${global.two}\ntwo = ${global.one}\n")),
        Text("mode-itself", Outcome::REFUSED, CIRCLE, WithMode("${global.bundle_load_mode}")),
        Text("deep", Outcome::LOADED, "x", Global("${global.key0}", ChainOfReferences(8, 1))),
        Text("too-deep", Outcome::REFUSED, CIRCLE, Global("${global.key0}", ChainOfReferences(30, 1))),
        Text("laughs", Outcome::REFUSED, TOO_LARGE, Global("${global.key0}", ChainOfReferences(8, 100))),
        Text("unfinished", Outcome::LOADED, "${", Global("${${${global.")),
    };
}

Corpus Dependencies()
{
    return {
        Text("selfish", Outcome::UNRESOLVED, "bundle circular reference occur : <selfish,selfish>.",
             Global("selfish", "bundle_dependencies = selfish\n")),
        Text("needy", Outcome::UNRESOLVED, "required bundle :[nobody0] not found.",
             Global("needy", "bundle_dependencies = " +
                                 Repeat(10'000, [](int i) { return "nobody" + std::to_string(i) + ","; }) + "\n")),
        Text("insistent", Outcome::LOADED, "insistent",
             Global("insistent", "bundle_dependencies = " + Repeat(10'000, [](int) { return "dos,"; }) + "\n")),
    };
}

Corpus Modes()
{
    Corpus corpus;
    for (const char* const mode : {"1e0", "0 0", "2147483648", "-2147483649", "99999999999999999999"}) {
        corpus.push_back(Text("mode" + std::to_string(corpus.size()), Outcome::REFUSED,
                              "Syntax error: Not a valid integer: " + std::string(mode), WithMode(mode)));
    }
    corpus.push_back(Text("no-mode", Outcome::REFUSED, "Syntax error: Not a valid integer", WithMode("")));
    corpus.push_back(
        Text("no-digits", Outcome::REFUSED, "Syntax error: Not a valid hexadecimal integer: 0x", WithMode("0x")));
    for (const char* const mode : {"-1", "2", "2147483647", "-2147483648", "0x7fffffff", "0xffffffff"}) {
        corpus.push_back(Text("mode" + std::to_string(corpus.size()), Outcome::NO_ACTIVATOR, "", WithMode(mode)));
    }
    return corpus;
}

Corpus Files(const std::string& collection)
{
    const auto unreadable = [](const std::string& path) {
        WriteFile(path, Global("unreadable"));
        fs::permissions(path, fs::perms::none);
    };
    const auto outside = [](const std::string& path) {
        WriteFile(path + ".outside", Global("outside"));
        fs::create_symlink("BundleManifest.ini.outside", path);
    };
    return {
        {"fifo", Outcome::REFUSED, NotRegular(collection + "/fifo"),
         [](const std::string& path) { EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0); }},
        {"socket", Outcome::REFUSED, NotRegular(collection + "/socket"), MakeSocket},
        {"directory", Outcome::REFUSED, NO_FILE, [](const std::string& path) { fs::create_directory(path); }},
        {"unreadable", Outcome::REFUSED, "Access to file denied: " + collection + "/unreadable/BundleManifest.ini",
         unreadable},
        {"linked", Outcome::LOADED, "outside", outside},
        Link("loop", NO_FILE, "BundleManifest.ini"),
        Link("dangling", NO_FILE, "nowhere"),
        Link("zeroes", NotRegular(collection + "/zeroes"), "/dev/zero"),
        Link("full", NotRegular(collection + "/full"), "/dev/full"),
        Link("terminal", NotRegular(collection + "/terminal"), "/dev/ptmx"),
        // The kernel reports these as regular files. The first cannot be read at its beginning, the second never ends.
        Link("memory", NO_NAME, "/proc/self/mem"),
        Link("messages", NO_NAME, "/proc/kmsg"),
    };
}

class AHostileManifest : public HostileBundles {
protected:
    void SetUp() override
    {
        ReadAsOthersDo(daemon);
        for (const Corpus& part : {Contents(), References(), Dependencies(), Modes(), Files(collection.Path())}) {
            m_corpus.insert(m_corpus.end(), part.begin(), part.end());
        }
        ASSERT_GT(m_corpus.size(), 50U);
    }

    void WriteInto(const CollectionBuilder& target) const
    {
        fs::permissions(target.Bundle("closed").Write(), fs::perms::none);
        for (const HostileManifest& hostile : m_corpus) {
            hostile.write(target.BundleIn(hostile.name).NoManifest().Write() + "/BundleManifest.ini");
        }
    }

    int Count(Outcome outcome) const
    {
        return static_cast<int>(std::count_if(m_corpus.begin(), m_corpus.end(),
                                              [outcome](const auto& hostile) { return hostile.outcome == outcome; }));
    }

    /// Once, or more often if the manifest is a link into /proc: the kernel renews the times of a file there when it
    /// has forgotten it, and that is a change.
    bool IsAsOftenAsChanged(const HostileManifest& hostile, int count) const
    {
        const std::string manifest = In(hostile.name) + "/BundleManifest.ini";
        const bool isInProc = fs::is_symlink(manifest) && fs::read_symlink(manifest).native().rfind("/proc/", 0) == 0;
        return isInProc ? count >= 1 : count == 1;
    }

    Corpus m_corpus;
};

} // namespace

TEST_F(AHostileManifest, AtTheStartFailsAlone)
{
    WriteInto(collection);
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    for (const HostileManifest& hostile : m_corpus) {
        SCOPED_TRACE(hostile.name);
        switch (hostile.outcome) {
        case Outcome::LOADED:
            EXPECT_GE(daemon.CountInLog("load bundle[" + hostile.detail), 1);
            EXPECT_TRUE(IsFollowed("load bundle from " + In(hostile.name) + "...",
                                   "=================bundle info================="));
            break;
        case Outcome::REFUSED:
            EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + In(hostile.name) + ":" + hostile.detail), 1);
            break;
        case Outcome::NO_ACTIVATOR:
            EXPECT_EQ(daemon.CountInLog("load bundle from " + In(hostile.name) + "..."), 1);
            break;
        case Outcome::UNRESOLVED:
            EXPECT_EQ(daemon.CountInLog("failed to resolve bundle[" + hostile.name +
                                        "] :Invalid argument: " + hostile.detail),
                      1);
            break;
        }
    }
    EXPECT_EQ(daemon.CountInLog("failed to load bundles from " + In("closed") + ":" + NO_FILE), 1);
    EXPECT_EQ(daemon.CountInLog("create bundle activator fail."), Count(Outcome::NO_ACTIVATOR));
    EXPECT_EQ(daemon.CountInLog("start bundle done."), Count(Outcome::LOADED) + 1);
    EXPECT_NE(daemon.WaitForItem("radio", "radiod"), 0);
    EXPECT_TRUE(IsUnharmed());
}

TEST_F(AHostileManifest, ThatIsDroppedInFailsAlone)
{
    WriteInto(staging);
    collection.Bundle("dos").Write();
    ASSERT_TRUE(StartServing());
    fs::remove_all(staging / "dos"); // it is there already, because others require it
    MoveAllIn();
    ASSERT_TRUE(daemon.WaitForLog("add a new bundle dir.", static_cast<int>(m_corpus.size())));
    EXPECT_TRUE(IsUnharmed()); // by now the last of them has been handled
    EXPECT_TRUE(IsFollowed(std::string("exception info: [") + NO_FILE + "].",
                           "failed to load bundle from [" + In("closed") + "]."));
    for (const HostileManifest& hostile : m_corpus) {
        SCOPED_TRACE(hostile.name);
        switch (hostile.outcome) {
        case Outcome::LOADED:
            EXPECT_GE(daemon.CountInLog("load bundle[" + hostile.detail), 1);
            break;
        case Outcome::REFUSED:
            EXPECT_TRUE(hostile.detail.empty() || IsFollowed("exception info: [" + hostile.detail + "].",
                                                             "failed to load bundle from [" + In(hostile.name) + "]."));
            EXPECT_TRUE(IsAsOftenAsChanged(
                hostile, daemon.CountInLog("failed to load bundle from [" + In(hostile.name) + "].")));
            break;
        case Outcome::NO_ACTIVATOR:
            EXPECT_EQ(daemon.CountInLog("load bundle from [" + In(hostile.name) + "] fail."), 1);
            break;
        case Outcome::UNRESOLVED:
            EXPECT_EQ(daemon.CountInLog("load bundle[" + hostile.name + "] success."), 1);
            EXPECT_TRUE(IsUnknown(hostile.name));
            break;
        }
    }
    EXPECT_EQ(daemon.CountInLog("start bundle done."), Count(Outcome::LOADED) + 1);
}

// The short form takes every eighth of the refused manifests.
TEST_F(AHostileManifest, InThePlaceOfAGoodOneLeavesTheBundleRunning)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    ASSERT_NE(item, 0);
    const std::string manifest = In("radio") + "/BundleManifest.ini";
    int failures = 0;
    for (std::size_t i = 0; i < m_corpus.size(); ++i) {
        const HostileManifest& hostile = m_corpus[i];
        if (hostile.outcome != Outcome::REFUSED || i % Scaled<std::size_t>(8, 1) != 0) {
            continue;
        }
        SCOPED_TRACE(hostile.name);
        const std::string bundle = staging.BundleIn(hostile.name).NoManifest().Write();
        hostile.write(bundle + "/BundleManifest.ini");
        Replace(bundle + "/BundleManifest.ini", manifest);
        ASSERT_TRUE(daemon.WaitForLog("update bundle[radio] failed.", ++failures));
    }
    EXPECT_GE(failures, Scaled(3, 25));
    EXPECT_TRUE(ProcessOf::IsAlive(item));
    EXPECT_EQ(daemon.CountInLog("stop bundle[radio]..."), 0);
    fs::remove_all(manifest);
    collection.Bundle("radio").Item("radiod").Write();
    EXPECT_TRUE(IsStarted("radio", 2));
    EXPECT_TRUE(IsUnharmed());
}
