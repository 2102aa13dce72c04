#include "system/system_test.h"

#include <dirent.h>

#include <initializer_list>

namespace {

using Messages = std::vector<std::string>;

class TheRecordsOfTheStart : public SystemTest {
public:
    /// The records of loading all bundles of the collection, in the directory's order.
    Messages Loading() const;
    Messages LoadingOf(const std::string& bundle) const;

    /// The messages of the server itself. Each must be an INFO record of the main thread and of the server's sources.
    Messages OfTheServer();
};

/// "child process[1234]" as "child process[PID]".
std::string WithoutPid(std::string message)
{
    const std::string before = "process[";
    const std::size_t begin = message.find(before);
    const std::size_t end = message.find(']', begin);
    if (begin != std::string::npos && end != std::string::npos) {
        message.replace(begin + before.size(), end - begin - before.size(), "PID");
    }
    return message;
}

/// The entries of a directory, in the order in which the system lists them.
std::vector<std::string> EntriesAsFound(const std::string& path)
{
    std::vector<std::string> names;
    DIR* const stream = ::opendir(path.c_str());
    for (const dirent* entry = ::readdir(stream); entry != nullptr; entry = ::readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    ::closedir(stream);
    return names;
}

Messages& operator+=(Messages& messages, const Messages& more)
{
    messages.insert(messages.end(), more.begin(), more.end());
    return messages;
}

Messages InfoOfItem(const std::string& name)
{
    return {"==================", "bundle item info : ", "bundle item name ------> [" + name + "]",
            "=================="};
}

const Messages LAUNCH{"parent process ready.notify child process[PID]...", "notify child process[PID] done."};

const Messages RESOLVING{"ResolveAllBundles...",
                         "resolve bundle[app]...",
                         "resolve bundle[app] dependencies...",
                         "resolve bundle[base]...",
                         "resolve bundle[base] dependencies...",
                         "resolve bundle dependencies done.",
                         "bundle[base] state changing[Installed] -> [Resolved]",
                         "resolve bundle done.",
                         "resolve bundle dependencies done.",
                         "bundle[app] state changing[Installed] -> [Resolved]",
                         "resolve bundle done.",
                         "ResolveAllBundles done."};

Messages Starting()
{
    Messages messages{"StartAllBundles...",
                      "start bundle[app]...",
                      "bundle[app] state changing[Resolved] -> [Starting]",
                      "start bundle[app] dependencies...",
                      "start bundle[base]...",
                      "bundle[base] state changing[Resolved] -> [Starting]",
                      "start bundle[base] dependencies...",
                      "start bundle dependencies done.",
                      "start bundle[base] activator...",
                      "child process create, start monitor thread."};
    messages += LAUNCH;
    messages += LAUNCH;
    messages += {"start bundle[base] activator done.", "bundle[base] state changing[Starting] -> [Active]",
                 "start bundle done.", "start bundle dependencies done.", "start bundle[app] activator..."};
    messages += LAUNCH;
    messages += {"start bundle[app] activator done.", "bundle[app] state changing[Starting] -> [Active]",
                 "start bundle done.", "StartAllBundles done."};
    return messages;
}

Messages TheRecordsOfTheStart::LoadingOf(const std::string& bundle) const
{
    Messages messages{"load bundle from " + collection / bundle + "...",
                      "=================bundle info=================", "bundle name ------> [" + bundle + "]",
                      "bundle load mode ------> [0]"};
    if (bundle == "app") {
        messages += {"bundle dependencies ------> [base]"};
        messages += InfoOfItem("appd");
    } else {
        messages += InfoOfItem("based");
        messages += InfoOfItem("check.sh");
    }
    messages += {"=================================================="};
    if (bundle == "base") {
        messages += {"run script[" + collection / "base/./script/install.sh" + "]...",
                     "run script[" + collection / "base/./script/install.sh" + "] done."};
    }
    messages += {"load bundle[" + bundle + "] success.", "load bundle done."};
    return messages;
}

Messages TheRecordsOfTheStart::Loading() const
{
    Messages messages{"LoadAllBundles..."};
    for (const std::string& name : EntriesAsFound(collection.Path())) {
        messages += LoadingOf(name);
    }
    messages += {"LoadAllBundles done."};
    return messages;
}

Messages TheRecordsOfTheStart::OfTheServer()
{
    Messages messages;
    for (const LogRecord& record : daemon.Log()) {
        if (record.pid == daemon.Pid()) {
            EXPECT_EQ(record.level, "INFO") << record.line;
            EXPECT_EQ(record.thread, daemon.Pid()) << record.line;
            EXPECT_EQ(record.source.rfind("system_server/bundle_server_module/src/", 0), 0U) << record.line;
            messages.push_back(WithoutPid(record.message));
        }
    }
    return messages;
}

} // namespace

TEST_F(TheRecordsOfTheStart, AreThoseOfEachStepInItsOrder)
{
    collection.Bundle("app").Requires("base").Copy("appd", TEST_SLEEPER).Write();
    collection.Bundle("base")
        .Copy("based", TEST_SLEEPER)
        .Item("check.sh", Shell("exec sleep 1000"))
        .Install(Shell("exit 0"))
        .Write();
    ASSERT_TRUE(daemon.StartServing());

    Messages expected{"load config done.",
                      "init bundle server...",
                      "bundle collection dir -> [" + collection.Path() + "]",
                      "create BundleFactory...",
                      "create BundleFactory done.",
                      "create BundleManager...",
                      "create BundleManager done."};
    expected += Loading();
    expected += RESOLVING;
    expected += Starting();
    expected += {"init bundle server done.", "bundle server start running..."};

    Messages actual = OfTheServer();
    ASSERT_FALSE(actual.empty());
    EXPECT_EQ(actual.front().rfind("load config from [", 0), 0U);
    actual.erase(actual.begin());
    EXPECT_EQ(actual, expected);
}

TEST_F(TheRecordsOfTheStart, ShowALaunchedChildUpToItsExecution)
{
    collection.Bundle("radio").Copy("radiod", TEST_SLEEPER).Write();
    ASSERT_TRUE(daemon.StartServing());
    const pid_t item = daemon.WaitForItem("radio", "radiod");
    EXPECT_EQ(daemon.Messages(item),
              (Messages{"wait for parent process ready...",
                        "wait for parent process ready done pgid is [" + std::to_string(daemon.Pid()) + "].",
                        "execute binary[" + collection / "radio/./bin/radiod" + "].excute command:{radiod}"}));
}
