// Tests each rule of lint on items, scripts and other files: once violated and once kept.
#include "bundlectl/author/lint_fixture.h"
#include "support/private_mnt.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

namespace fs = std::filesystem;
using namespace LintTest;

namespace {

class LintOfItems : public LintFindings {};
class LintOfPrograms : public LintFindings {};
class LintOfScripts : public LintFindings {};
class LintOfFiles : public LintFindings {};

} // namespace

TEST_F(LintOfItems, MustBeThere)
{
    collection.Bundle("radio").Item("tunerd").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"item-missing"});
    EXPECT_GT(LineOf("item-missing"), 3);
}

TEST_F(LintOfItems, MustBeFiles)
{
    collection.Bundle("radio").Item("tunerd").Write();
    fs::create_directories(collection / "radio/bin/tunerd");
    EXPECT_EQ(IdsOf("radio"), Found{"item-no-file"});
}

TEST_F(LintOfItems, MustBeExecutable)
{
    collection.Bundle("radio").Item("tunerd", SCRIPT).Item("watch.sh", "exit 0\n").Write();
    ::chmod((collection / "radio/bin/tunerd").c_str(), 0644);
    ::chmod((collection / "radio/bin/watch.sh").c_str(), 0644);
    EXPECT_EQ(IdsOf("radio"), Found{"item-not-executable"}) << "a .sh item needs no permission";
}

TEST_F(LintOfItems, MustBeProgramsOrScripts)
{
    collection.Bundle("radio").Item("tunerd", "hello\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"item-no-program"});
}

TEST_F(LintOfItems, NameInterpretersThatThereAre)
{
    collection.Bundle("radio").Item("tunerd", "#!/no/such/interpreter -x\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"interpreter-missing"});
    collection.Bundle("radio").Item("tunerd", "#!/bin/sh\r\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"interpreter-missing"});
    EXPECT_NE(TextOf("interpreter-missing").find("carriage return"), std::string::npos);
    fs::create_directories(collection / "root/no/such");
    WriteFile(collection / "root/no/such/interpreter", "");
    options.sysroot = collection / "root";
    collection.Bundle("radio").Item("tunerd", "#!/no/such/interpreter -x\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"interpreter-not-executable"});
    EXPECT_EQ(TextOf("interpreter-not-executable"), "It is /no/such/interpreter.");
    ::chmod((collection / "root/no/such/interpreter").c_str(), 0755);
    EXPECT_EQ(IdsOf("radio"), Found{});
    collection.Bundle("radio").Item("tunerd", "#!/no/such\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"interpreter-not-executable"}) << "a directory";
}

TEST_F(LintOfItems, LieInTheBundle)
{
    collection.Bundle("radio").Item("../tunerd").Write();
    WriteFile(collection / "radio/tunerd", SCRIPT);
    fs::create_directories(collection / "radio/bin");
    ::chmod((collection / "radio/tunerd").c_str(), 0755);
    EXPECT_EQ(IdsOf("radio"), Found{"item-outside-bundle"});
}

TEST_F(LintOfItems, AreLibrariesWhereTheirNameSaysSo)
{
    collection.Bundle("radio").Library("tuner.so", "run").Write();
    fs::create_directories(collection / "radio/bin");
    WriteFile(collection / "radio/bin/tuner.so", "no library");
    EXPECT_EQ(IdsOf("radio"), Found{"item-no-library"});
    collection.Bundle("radio").Library("tuner.so", LINT_ENTRY, LINT_LIBRARY).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
}

TEST_F(LintOfPrograms, IsForTheMachine)
{
    collection.Bundle("radio").Copy("tunerd", LINT_PROGRAM).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
    options.machine = std::string(LINT_OTHER_MACHINE);
    EXPECT_EQ(IdsOf("radio"), Found{"machine-wrong"});
}

TEST_F(LintOfPrograms, FindsItsLibraries)
{
    collection.Bundle("radio").Copy("tunerd", LINT_NEEDING).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"library-not-found"});
    fs::copy_file(LINT_NEEDED, collection / "radio/bin/" LINT_NEEDED_NAME);
    EXPECT_EQ(IdsOf("radio"), Found{}) << "it is found by $ORIGIN";
}

TEST_F(LintOfPrograms, NeedsNoLaterCLibrary)
{
    collection.Bundle("radio").Copy("tunerd", LINT_PROGRAM).Write();
    // A root whose C library offers no version at all.
    options.sysroot = collection / "root";
    fs::create_directories(collection / "root/lib");
    fs::copy_file(LINT_OLD_LIBC, collection / "root/lib/libc.so.6");
    const Found ids = IdsOf("radio");
    EXPECT_EQ(std::count(ids.begin(), ids.end(), "glibc-too-new"), 1);
    EXPECT_NE(TextOf("glibc-too-new").find("there is 2.0."), std::string::npos) << TextOf("glibc-too-new");
}

TEST_F(LintOfPrograms, ExportsTheEntryFunction)
{
    collection.Bundle("radio").Library("tuner.so", "no_such_function", LINT_LIBRARY).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"entry-missing"});
}

TEST_F(LintOfPrograms, StaysInTheGroup)
{
    collection.Bundle("radio").Copy("tunerd", LINT_LEAVING).Write();
    EXPECT_EQ(IdsOf("radio"), (Found{"leaves-group", "leaves-group"}));
    EXPECT_EQ(TextOf("leaves-group"), "It calls setsid.");
}

TEST_F(LintOfPrograms, MayBeBroken)
{
    collection.Bundle("radio").Item("tunerd", "\177ELF" + std::string(60, '\xff')).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"item-no-program"});
}

TEST_F(LintOfScripts, AreExecutable)
{
    collection.Bundle("radio").Install(SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{});
    ::chmod((collection / "radio/script/install.sh").c_str(), 0644);
    EXPECT_EQ(IdsOf("radio"), Found{"script-not-executable"});
}

TEST_F(LintOfScripts, NameTheirInterpreter)
{
    collection.Bundle("radio").Install("echo hello\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"script-no-interpreter"});
    collection.Bundle("radio").Install("#!/no/such/shell\n").Write();
    EXPECT_EQ(IdsOf("radio"), Found{"interpreter-missing"});
}

TEST_F(LintOfScripts, HaveNamesThatTheServerKnows)
{
    collection.Bundle("radio").Script("instal1.sh", SCRIPT).Script("helper.sh", SCRIPT).Write();
    EXPECT_EQ(IdsOf("radio"), Found{"script-unknown"});
    EXPECT_EQ(TextOf("script-unknown"), "Did you mean \"install.sh\"?");
}

TEST_F(LintOfScripts, ReplaceTheShellByTheirProgram)
{
    EXPECT_EQ(IdsOfShell("# radio\n/usr/sbin/some-daemon --foreground\n"), Found{"shell-without-exec"});
    EXPECT_EQ(LineOf("shell-without-exec"), 2);
    EXPECT_EQ(IdsOfShell("exec /usr/sbin/some-daemon --foreground\n"), Found{});
    EXPECT_EQ(IdsOfShell("/usr/bin/prepare\necho done\n"), Found{});
    EXPECT_EQ(IdsOfShell("while true; do\n    /usr/bin/measure\ndone\n"), Found{});
}

TEST_F(LintOfScripts, LeaveNothingInTheBackground)
{
    EXPECT_EQ(IdsOfShell("/usr/sbin/some-daemon &\n"), Found{"shell-background"});
    EXPECT_EQ(IdsOfShell("/usr/sbin/some-daemon &\nwait\n"), Found{});
}

TEST_F(LintOfScripts, WriteBelowAFolderOfTheirOwn)
{
    EXPECT_EQ(IdsOfShell("echo $$ > \"$(dirname \"$0\")/../tuner.pid\"\n"), Found{"writes-into-bundle"});
    EXPECT_EQ(TextOf("writes-into-bundle"), "It writes tuner.pid.");
    EXPECT_EQ(IdsOfShell("here=${0%/*}\necho x >> \"$here/tuner.log\"\n"), Found{"writes-into-bundle"});
    EXPECT_EQ(TextOf("writes-into-bundle"), "It writes bin/tuner.log.");
    EXPECT_EQ(IdsOfShell("root=$(cd \"$(dirname \"$0\")/..\" && pwd)\ntouch \"$root/script/mark\"\n"),
              Found{"writes-into-bundle"});
    EXPECT_EQ(IdsOfShell("root=${0%/bin/*}\necho x > \"$root/data/tuner.log\" 2>&1\n"), Found{});
    EXPECT_EQ(IdsOfShell("echo x > /tmp/file\necho \"$0 > $root/x\"\n"), Found{});
}

TEST_F(LintOfFiles, BelongToOneUser)
{
    collection.Bundle("radio").Item("tunerd", SCRIPT).Write();
    ::chmod((collection / "radio/bin/tunerd").c_str(), 0777);
    EXPECT_EQ(IdsOf("radio"), Found{"writable-by-others"});
}

TEST_F(LintOfFiles, AreReachedByNoLinkThatLeadsOut)
{
    collection.Bundle("radio").Item("tunerd", SCRIPT).Write();
    fs::create_directories(collection / "radio/data");
    fs::create_symlink("../bin/tunerd", collection / "radio/data/inside");
    EXPECT_EQ(IdsOf("radio"), Found{});
    fs::create_symlink("../../other", collection / "radio/data/outside");
    fs::create_symlink("/etc/passwd", collection / "radio/data/absolute");
    EXPECT_EQ(IdsOf("radio"), (Found{"link-outside-bundle", "link-outside-bundle"}));
}

TEST_F(LintOfFiles, LieOnOneFileSystem)
{
    collection.Bundle("radio").Write();
    fs::create_directories(collection / "radio/data");
    EXPECT_EQ(IdsOf("radio"), Found{});
    if (!EnterPrivateMnt().empty() ||
        ::mount("none", (collection / "radio/data").c_str(), "tmpfs", 0, "mode=0755") != 0) {
        GTEST_SKIP() << "nothing can be mounted here";
    }
    EXPECT_EQ(IdsOf("radio"), Found{"mount-point"});
    ::umount((collection / "radio/data").c_str());
}
