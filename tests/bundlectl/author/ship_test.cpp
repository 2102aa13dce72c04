// Packing, signing and comparing bundles.
#include "put/bundle_archive.h"
#include "put/contents.h"
#include "put/hash.h"
#include "put/key.h"

#include "support/collection_builder.h"
#include "support/files.h"
#include "support/program.h"

#include <gtest/gtest.h>

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;

using Put::CheckArchive;
using Put::Refusal;

/// A member of an archive that the verb pack never makes.
struct Member {
    std::string_view path; // the caller owns the texts
    std::string_view content;
    unsigned type = AE_IFREG;
    unsigned mode = 0644;
    std::string_view target = {};
    std::string_view hardLink = {};
};

class Shipping : public ::testing::Test {
public:
    Shipping()
    {
        source.Bundle("radio").Item("tunerd", "#!/bin/sh\n").Install("#!/bin/sh\n").Write();
        fs::create_symlink("tunerd", source / "radio/bin/tuner");
        fs::create_directories(source / "radio/data/empty");
        fs::create_directory(source / "target");
    }

    std::string File(const std::string& name) const { return source / name; }

    static void AddTo(archive* writer, const Member& member)
    {
        archive_entry* const entry = ::archive_entry_new();
        ::archive_entry_set_pathname(entry, std::string(member.path).c_str());
        ::archive_entry_set_filetype(entry, member.type);
        ::archive_entry_set_perm(entry, member.mode);
        if (member.type == AE_IFLNK) {
            ::archive_entry_set_symlink(entry, std::string(member.target).c_str());
        }
        if (!member.hardLink.empty()) {
            ::archive_entry_set_hardlink(entry, std::string(member.hardLink).c_str());
        }
        ::archive_entry_set_size(entry, static_cast<la_int64_t>(member.content.size()));
        ASSERT_EQ(::archive_write_header(writer, entry), ARCHIVE_OK) << ::archive_error_string(writer);
        ::archive_write_data(writer, member.content.data(), member.content.size());
        ::archive_entry_free(entry);
    }

    /// @param list of contents, at the archive's beginning; empty: it has none
    void WriteArchive(const std::string& list, std::initializer_list<Member> members) const
    {
        archive* const writer = ::archive_write_new();
        ::archive_write_set_format_pax_restricted(writer);
        ::archive_write_add_filter_gzip(writer);
        ASSERT_EQ(::archive_write_open_filename(writer, File("a.tar.gz").c_str()), ARCHIVE_OK);
        if (!list.empty()) {
            AddTo(writer, {Put::CONTENTS_FILE, list});
        }
        for (const Member& member : members) {
            AddTo(writer, member);
        }
        ::archive_write_close(writer);
        ::archive_write_free(writer);
    }

    /// Writes a list of contents with these lines, and members after it. Returns the reason of the refusal.
    std::string RefusalOf(const std::string& lines, std::initializer_list<Member> members) const
    {
        WriteArchive("bundle-contents 1\n" + lines, members);
        std::string refusal;
        try {
            CheckArchive(File("a.tar.gz"), {});
        } catch (const Refusal& e) {
            refusal = e.what();
        }
        EXPECT_THROW(Put::Unpack(File("a.tar.gz"), File("target"), {}), Refusal);
        fs::remove_all(File("target"));
        fs::create_directory(File("target"));
        return refusal;
    }

    CollectionBuilder source;
};

constexpr const char EMPTY_HASH[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::string FileLine(const std::string& path, const std::string& mode = "644", const std::string& size = "0")
{
    return "f\t" + mode + "\t" + size + "\t" + EMPTY_HASH + "\t" + path + "\n";
}

} // namespace

TEST_F(Shipping, PacksTheSameFilesToTheSameBytes)
{
    Put::Pack(File("radio"), File("a.tar.gz"), "");
    fs::copy(File("radio"), File("other"), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    fs::last_write_time(File("other/bin/tunerd"), fs::file_time_type::clock::now() - std::chrono::hours(100));
    Put::Pack(File("other"), File("b.tar.gz"), "");
    EXPECT_EQ(ReadFile(File("a.tar.gz")), ReadFile(File("b.tar.gz")));
    WriteFile(File("other/bin/tunerd"), "#!/bin/bash\n");
    Put::Pack(File("other"), File("b.tar.gz"), "");
    EXPECT_NE(ReadFile(File("a.tar.gz")), ReadFile(File("b.tar.gz")));
}

TEST_F(Shipping, UnpacksWhatWasPacked)
{
    Put::Pack(File("radio"), File("a.tar.gz"), "");
    const Put::Shipped shipped = Put::Unpack(File("a.tar.gz"), File("target"), {});
    EXPECT_EQ(shipped.text, Put::ReadContents(File("radio")).Text());
    EXPECT_EQ(Put::ReadContents(File("target")).Text(), shipped.text);
    EXPECT_EQ(fs::read_symlink(File("target/bin/tuner")), "tunerd");
    EXPECT_TRUE(fs::is_directory(File("target/data/empty")));
    EXPECT_EQ(Put::Differences(File("target"), shipped.contents), std::vector<std::string>{});
}

TEST_F(Shipping, HashesMuchInSeveralThreads)
{
    // More than one thread hashes alone.
    constexpr std::size_t size = std::size_t{3} * 1024 * 1024;
    for (const char c : {'a', 'b', 'c', 'd'}) {
        WriteFile(File("radio/bin/") + c, std::string(size, c));
    }
    const Put::Contents contents = Put::ReadContents(File("radio"));
    for (const Put::Entry& entry : contents.entries) {
        if (entry.kind == Put::Entry::FILE) {
            const Put::HashedFile alone = Put::HashFile(File("radio/") + entry.path);
            EXPECT_EQ(entry.hash, alone.hash) << entry.path;
            EXPECT_EQ(entry.size, alone.size) << entry.path;
        }
    }
    fs::permissions(File("radio/bin/c"), fs::perms::none);
    if (::access(File("radio/bin/c").c_str(), R_OK) != 0) {
        EXPECT_THROW(Put::ReadContents(File("radio")), Refusal);
    }
}

TEST_F(Shipping, TakesNamesOfAnyScript)
{
    for (const char* const name : {"Grüße", "日本語", "not UTF-8: \xff"}) {
        WriteFile(File("radio/bin/") + name, "text");
        fs::create_symlink(name, File("radio/bin/link to ") + name);
    }
    const Put::Shipped shipped = Put::Pack(File("radio"), File("radio.tar.gz"), "");
    EXPECT_EQ(CheckArchive(File("radio.tar.gz"), {}).text, shipped.text);
    Put::Unpack(File("radio.tar.gz"), File("target"), {});
    EXPECT_EQ(Put::Differences(File("target"), shipped.contents), std::vector<std::string>{});
}

TEST_F(Shipping, TellsWhatDiffers)
{
    const Put::Contents shipped = Put::ReadContents(File("radio"));
    WriteFile(File("radio/data/tuner.log"), "written by an item");
    EXPECT_EQ(Put::Differences(File("radio"), shipped), std::vector<std::string>{});
    WriteFile(File("radio/bin/tunerd"), "#!/bin/bash\n");
    WriteFile(File("radio/bin/more"), "");
    ::chmod(File("radio/script/install.sh").c_str(), 0644);
    fs::remove(File("radio/bin/tuner"));
    fs::create_directory(File("radio/bin/tuner"));
    fs::remove(File("radio/data/empty"));
    EXPECT_EQ(Put::Differences(File("radio"), shipped),
              (std::vector<std::string>{"bin/tuner is of another kind than was shipped.",
                                        "bin/tunerd differs from what was shipped.", "data/empty is missing.",
                                        "script/install.sh has other permissions than were shipped.",
                                        "bin/more was not shipped."}));
}

TEST_F(Shipping, RefusesToPackWhatCannotBeShipped)
{
    const auto refuses = [this] {
        EXPECT_THROW(Put::Pack(File("radio"), File("a.tar.gz"), ""), Refusal);
        EXPECT_FALSE(fs::exists(File("a.tar.gz")));
        EXPECT_FALSE(fs::exists(File("a.tar.gz.part")));
    };
    fs::create_symlink("/etc/passwd", File("radio/data/out"));
    refuses();
    fs::remove(File("radio/data/out"));
    fs::create_symlink("../../../x", File("radio/data/out"));
    refuses();
    fs::remove(File("radio/data/out"));
    ASSERT_EQ(::mkfifo(File("radio/data/fifo").c_str(), 0600), 0);
    refuses();
    fs::remove(File("radio/data/fifo"));
    WriteFile(File("radio/data/line\nend"), "");
    refuses();
    fs::remove(File("radio/data/line\nend"));
    ::chmod(File("radio/bin/tunerd").c_str(), 04755);
    refuses();
}

TEST_F(Shipping, ChecksSignatures)
{
    const Put::Keys keys = Put::MakeKeys();
    const Put::Keys others = Put::MakeKeys();
    WriteFile(File("secret"), keys.secret);
    WriteFile(File("public"), keys.publicKey);
    WriteFile(File("other"), others.publicKey);
    const Put::Shipped shipped = Put::Pack(File("radio"), File("a.tar.gz"), File("secret"));
    const Put::Shipped read = CheckArchive(File("a.tar.gz"), {});
    EXPECT_EQ(read.signature, shipped.signature);
    EXPECT_NO_THROW(Put::RequireSignature(read.text, read.signature, File("public")));
    EXPECT_THROW(Put::RequireSignature(read.text, read.signature, File("other")), Refusal);
    EXPECT_THROW(Put::RequireSignature(read.text + " ", read.signature, File("public")), Refusal);
    EXPECT_THROW(Put::RequireSignature(read.text, "", File("public")), Refusal);
    EXPECT_THROW(Put::RequireSignature(read.text, "bundlectl-signature AAAA", File("public")), Refusal);
    EXPECT_THROW(Put::RequireSignature(read.text, read.signature, File("secret")), Refusal) << "no public key";
    EXPECT_THROW(Put::Sign(read.text, File("public")), Refusal) << "no secret key";
    EXPECT_THROW(Put::Sign(read.text, File("nothing")), Refusal);
}

TEST_F(Shipping, RefusesATruncatedArchiveAtAnyLength)
{
    Put::Pack(File("radio"), File("a.tar.gz"), "");
    const std::string whole = ReadFile(File("a.tar.gz"));
    for (std::size_t size = 0; size < whole.size() - 1; size += 7) {
        WriteFile(File("b.tar.gz"), whole.substr(0, size));
        EXPECT_THROW(CheckArchive(File("b.tar.gz"), {}), Refusal) << size;
    }
}

TEST_F(Shipping, RefusesAChangedArchive)
{
    Put::Pack(File("radio"), File("a.tar.gz"), "");
    const std::string list = Put::ReadContents(File("radio")).Text();
    const std::string whole = ReadFile(File("a.tar.gz"));
    for (std::size_t place = 10; place < whole.size(); place += 5) {
        std::string changed = whole;
        changed[place] = static_cast<char>(changed[place] ^ 0x10);
        WriteFile(File("b.tar.gz"), changed);
        try {
            EXPECT_EQ(CheckArchive(File("b.tar.gz"), {}).text, list) << "only what is not used may differ";
        } catch (const Refusal&) { // expected
        }
    }
}

TEST_F(Shipping, RefusesPathsThatLeadOut)
{
    for (const char* const path : {"../x", "/x", "a/../../x", "./x", "a//x", "x/", "", "..", "a\x1bx"}) {
        EXPECT_NE(RefusalOf(FileLine(path), {Member{path, ""}}), "") << path;
    }
    EXPECT_NE(RefusalOf(FileLine("nowhere/x"), {Member{"nowhere/x", ""}}), "") << "its directory is not in the list";
    EXPECT_NE(RefusalOf("l\t-\t-\tb\ta\n" + FileLine("a/x"), {Member{"a", "", AE_IFLNK, 0777, "b"}, Member{"a/x", ""}}),
              "")
        << "through a link";
    EXPECT_FALSE(Exists(File("x")));
}

TEST_F(Shipping, RefusesLinksThatLeadOut)
{
    for (const char* const target : {"/etc/passwd", "../x", "a/../../x", ""}) {
        EXPECT_NE(
            RefusalOf("l\t-\t-\t" + std::string(target) + "\tlink\n", {Member{"link", "", AE_IFLNK, 0777, target}}), "")
            << target;
    }
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", "", AE_IFREG, 0644, "", "BundleContents"}}), "") << "a hard link";
}

TEST_F(Shipping, RefusesOtherKindsThanTheListHas)
{
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", "", AE_IFIFO}}), "");
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", "", AE_IFCHR}}), "");
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", "", AE_IFBLK}}), "");
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", "", AE_IFDIR}}), "");
    EXPECT_NE(RefusalOf("c\t644\t-\t-\tx\n", {Member{"x", "", AE_IFCHR}}), "");
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", ""}, Member{"y", ""}}).find("\"y\" is not in the list"),
              std::string::npos);
    EXPECT_NE(RefusalOf(FileLine("x") + FileLine("y"), {Member{"x", ""}}), "");
    EXPECT_NE(RefusalOf(FileLine("x") + FileLine("x"), {Member{"x", ""}, Member{"x", ""}}), "") << "a name twice";
}

TEST_F(Shipping, RefusesRightsBeyondReadingWritingAndExecuting)
{
    EXPECT_NE(RefusalOf(FileLine("x", "4755"), {Member{"x", "", AE_IFREG, 04755}}), "");
    EXPECT_NE(RefusalOf(FileLine("x", "755"), {Member{"x", "", AE_IFREG, 04755}}), "");
    EXPECT_NE(RefusalOf("d\t1777\t-\t-\tx\n", {Member{"x", "", AE_IFDIR, 01777}}), "");
}

TEST_F(Shipping, RefusesBombs)
{
    EXPECT_NE(RefusalOf(FileLine("x"), {Member{"x", std::string(10'000'000, 'x')}}), "") << "longer than it says";
    EXPECT_NE(RefusalOf(FileLine("x", "644", "18446744073709551615"), {Member{"x", ""}}).find("bytes, more than"),
              std::string::npos);
    EXPECT_NE(RefusalOf(FileLine("x", "644", "18446744073709551615") + FileLine("y", "644", "2"), {Member{"x", ""}}),
              "");
    EXPECT_NE(RefusalOf(std::string(20'000'000, 'x'), {}), "") << "a list without an end";
    std::string many;
    for (std::size_t i = 0; i <= Put::Contents::MOST_ENTRIES; ++i) {
        many += FileLine(std::to_string(1'000'000 + i));
    }
    EXPECT_NE(RefusalOf(many, {}).find("more than 65536 files"), std::string::npos);
}

TEST_F(Shipping, RefusesWhatIsNoArchiveOfABundle)
{
    WriteFile(File("a.tar.gz"), "hello");
    EXPECT_THROW(CheckArchive(File("a.tar.gz"), {}), Refusal);
    EXPECT_THROW(CheckArchive(File("nothing"), {}), Refusal);
    WriteArchive("", {Member{"BundleManifest.ini", "[global]\n"}});
    EXPECT_THROW(CheckArchive(File("a.tar.gz"), {}), Refusal);
}

TEST_F(Shipping, IsExercisedByAGoodArchiveOfTheTestsOwnKind)
{
    WriteArchive("bundle-contents 1\nd\t755\t-\t-\ta\n" + FileLine("a/x"),
                 {Member{"a", "", AE_IFDIR, 0755}, Member{"a/x", ""}});
    EXPECT_NO_THROW(CheckArchive(File("a.tar.gz"), {}));
}
