#include "bundle_manifest.h"

#include "support/collection_builder.h"
#include "support/log_capture.h"

#include <Poco/Exception.h>
#include <Poco/FileStream.h>

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

using SystemServer::BundleManifest;

namespace {

const std::string FAILED = "parse bundle manifest fail.";

class ReadingAManifest : public ::testing::Test {
public:
    /// Reads a text as a manifest.
    class From {
    public:
        explicit From(const std::string& text) : m_stream(text), m_manifest(m_stream) {}
        const BundleManifest* operator->() const { return &m_manifest; }

    private:
        std::istringstream m_stream;
        BundleManifest m_manifest;
    };

    static void Read(const std::string& text) { const From manifest(text); }

    static std::string Global(const std::string& more = "")
    {
        return "[global]\nbundle_name = media\nbundle_load_mode = 0\n" + more;
    }

    static std::vector<std::string> ItemNames(const From& manifest)
    {
        std::vector<std::string> names;
        for (const BundleManifest::LoadItem& item : manifest->GetLoadItems()) {
            names.push_back(item.itemName);
        }
        return names;
    }

    /// The text of the exception that refuses the manifest; empty when none of that class is thrown.
    template <class Exception> static std::string Refusal(const std::string& text)
    {
        try {
            Read(text);
        } catch (const Exception& e) {
            const auto* const poco = dynamic_cast<const Poco::Exception*>(static_cast<const std::exception*>(&e));
            return poco != nullptr ? poco->displayText() : e.what();
        }
        return "";
    }

    LogCapture log;
};

using Names = std::vector<std::string>;

/// A stream buffer that fails once its text is read.
class BrokenBuffer : public std::streambuf {
public:
    explicit BrokenBuffer(std::string text) : m_text(std::move(text))
    {
        setg(m_text.data(), m_text.data(), m_text.data() + m_text.size());
    }

protected:
    int_type underflow() override { throw std::runtime_error("input/output error"); }

private:
    std::string m_text;
};

/// A stream buffer without an end. It counts the characters that are read.
class EndlessBuffer : public std::streambuf {
public:
    std::size_t Given() const { return m_given; }

protected:
    int_type underflow() override
    {
        m_given += m_chunk.size();
        setg(m_chunk.data(), m_chunk.data(), m_chunk.data() + m_chunk.size());
        return traits_type::to_int_type(m_chunk.front());
    }

private:
    std::string m_chunk = std::string(1000, ';');
    std::size_t m_given = 0;
};

} // namespace

TEST_F(ReadingAManifest, GivesNameModeDependenciesAndItems)
{
    const From manifest("[global]\nbundle_name = media\nbundle_load_mode = 1\nbundle_dependencies = base, net\n"
                        "[item1]\nitem_name = mediad\n[item2]\nitem_name = libcodec.so\nentry_func = codec_main\n");
    EXPECT_EQ(manifest->GetBundleName(), "media");
    EXPECT_EQ(manifest->GetLoadMode(), BundleManifest::THREAD_LOAD_MODE);
    EXPECT_EQ(manifest->GetDependencies(), (Names{"base", "net"}));
    ASSERT_EQ(manifest->GetLoadItems().size(), 2U);
    EXPECT_EQ(manifest->GetLoadItems()[0].itemName, "mediad");
    EXPECT_EQ(manifest->GetLoadItems()[0].entryFunc, "");
    EXPECT_EQ(manifest->GetLoadItems()[1].itemName, "libcodec.so");
    EXPECT_EQ(manifest->GetLoadItems()[1].entryFunc, "codec_main");
}

TEST_F(ReadingAManifest, LogsASummaryInTheOrderOfTheFile)
{
    Read("[global]\nbundle_name = media\nbundle_load_mode = 1\nbundle_dependencies = base\n"
         "[item]\nitem_name = libcodec.so\nentry_func = codec_main\n");
    EXPECT_EQ(log.Messages(),
              (Names{"=================bundle info=================", "bundle name ------> [media]",
                     "bundle load mode ------> [1]", "bundle dependencies ------> [base]",
                     "==================", "bundle item info : ", "bundle item name ------> [libcodec.so]",
                     "bundle item[dyn lib] entry func ------> [codec_main]",
                     "==================", "=================================================="}));
    for (const LogRecord& record : log.Records()) {
        EXPECT_EQ(record.level, "INFO") << record.message;
        EXPECT_EQ(record.module, 4) << record.message;
        EXPECT_EQ(record.flag, 0) << record.message;
        EXPECT_EQ(record.source.rfind("system_server/bundle_server_module/src/bundle_manifest.cpp:", 0), 0U);
    }
}

TEST_F(ReadingAManifest, LogsNoEntryFunctionForOtherItemsThanLibraries)
{
    Read(Global("[item]\nitem_name = mediad\nentry_func = ignored\n"));
    EXPECT_EQ(log.Messages(), (Names{"=================bundle info=================", "bundle name ------> [media]",
                                     "bundle load mode ------> [0]",
                                     "==================", "bundle item info : ", "bundle item name ------> [mediad]",
                                     "==================", "=================================================="}));
}

TEST_F(ReadingAManifest, NeedsNoItems)
{
    const From manifest(Global());
    EXPECT_TRUE(manifest->GetLoadItems().empty());
    EXPECT_TRUE(log.Has("=================================================="));
    EXPECT_FALSE(log.Has("bundle item info : "));
    EXPECT_FALSE(log.Has(FAILED));
}

TEST_F(ReadingAManifest, SplitsDependenciesTrimsThemAndDropsEmptyOnes)
{
    const From manifest(Global("bundle_dependencies = a, ,b,,\n"));
    EXPECT_EQ(manifest->GetDependencies(), (Names{"a", "b"}));
    EXPECT_EQ(log.CountPart("bundle dependencies ------> "), 2);
    EXPECT_TRUE(log.InOrder({"bundle dependencies ------> [a]", "bundle dependencies ------> [b]"}));
}

TEST_F(ReadingAManifest, KeepsTheOrderAndTheDuplicatesOfDependencies)
{
    const From manifest(Global("bundle_dependencies = z,a,z\n"));
    EXPECT_EQ(manifest->GetDependencies(), (Names{"z", "a", "z"}));
}

TEST_F(ReadingAManifest, FindsNoDependenciesInAnEmptyOrMissingList)
{
    for (const char* const list : {"", "bundle_dependencies =\n", "bundle_dependencies = , ,,\n"}) {
        const From manifest(Global(list));
        EXPECT_TRUE(manifest->GetDependencies().empty()) << list;
    }
    EXPECT_FALSE(log.HasPart("bundle dependencies"));
}

TEST_F(ReadingAManifest, SortsItemsByTheNamesOfTheirSectionsWithoutRegardToCase)
{
    EXPECT_EQ(ItemNames(From(Global("[z]\nitem_name = last\n[A]\nitem_name = first\n"))), (Names{"first", "last"}));
    EXPECT_EQ(ItemNames(From(Global("[item2]\nitem_name = two\n[item10]\nitem_name = ten\n"))), (Names{"ten", "two"}));
}

TEST_F(ReadingAManifest, GivesAScriptNoEntryFunction)
{
    const From manifest(Global("[item]\nitem_name = tool.sh\nentry_func = ignored\n"));
    EXPECT_EQ(manifest->GetLoadItems().at(0).itemName, "tool.sh");
    EXPECT_EQ(manifest->GetLoadItems().at(0).entryFunc, "");
}

TEST_F(ReadingAManifest, TakesNoUpperCaseEndingForALibrary)
{
    const From manifest(Global("[item]\nitem_name = libx.SO\n"));
    EXPECT_EQ(manifest->GetLoadItems().at(0).entryFunc, "");
    EXPECT_FALSE(log.HasPart("entry func"));
}

TEST_F(ReadingAManifest, TakesDecimalAndHexadecimalModes)
{
    const std::string before = "[global]\nbundle_name = media\nbundle_load_mode = ";
    EXPECT_EQ(From(before + "0x1\n")->GetLoadMode(), BundleManifest::THREAD_LOAD_MODE);
    EXPECT_EQ(From(before + "0X1\n")->GetLoadMode(), BundleManifest::THREAD_LOAD_MODE);
    EXPECT_EQ(From(before + "0\n")->GetLoadMode(), BundleManifest::PROCESS_LOAD_MODE);
}

TEST_F(ReadingAManifest, TakesAnyIntegerForTheMode)
{
    const std::string before = "[global]\nbundle_name = media\nbundle_load_mode = ";
    EXPECT_EQ(static_cast<int>(From(before + "7\n")->GetLoadMode()), 7);
    EXPECT_EQ(static_cast<int>(From(before + "-1\n")->GetLoadMode()), -1);
    EXPECT_TRUE(log.Has("bundle load mode ------> [7]"));
    EXPECT_TRUE(log.Has("bundle load mode ------> [-1]"));
}

TEST_F(ReadingAManifest, IgnoresTheCaseOfKeysAndTakesTheLastOfTheSame)
{
    const From manifest("; a comment\n[global]\nBUNDLE_NAME = first\n\n  ; another\nBundle_Load_Mode = 0\n"
                        "bundle_name =   second one \n");
    EXPECT_EQ(manifest->GetBundleName(), "second one");
}

TEST_F(ReadingAManifest, ExpandsReferencesToOtherKeys)
{
    const From manifest(Global("bundle_dependencies = ${global.bundle_name}_base\n"));
    EXPECT_EQ(manifest->GetDependencies(), Names{"media_base"});
}

TEST_F(ReadingAManifest, FailsWithoutAName)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>("[global]\nbundle_load_mode = 0\n"), "Not found: global.bundle_name");
    EXPECT_TRUE(log.HasError(FAILED));
}

TEST_F(ReadingAManifest, FailsWithoutAGlobalSection)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>("[item]\nitem_name = mediad\n"), "Not found: global.bundle_name");
    EXPECT_EQ(Refusal<Poco::NotFoundException>(""), "Not found: global.bundle_name");
    EXPECT_EQ(log.Count(FAILED), 2);
}

TEST_F(ReadingAManifest, FailsWithoutAMode)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>("[global]\nbundle_name = media\n"),
              "Not found: global.bundle_load_mode");
    EXPECT_TRUE(log.HasError(FAILED));
    EXPECT_FALSE(log.HasPart("bundle info"));
}

TEST_F(ReadingAManifest, FailsOnAModeThatIsNoInteger)
{
    for (const char* const mode : {"one", "1.5", "", "0x"}) {
        log.Restart();
        EXPECT_NE(Refusal<Poco::SyntaxException>(
                      "[global]\nbundle_name = media\nbundle_load_mode = " + std::string(mode) + "\n"),
                  "")
            << mode;
        EXPECT_TRUE(log.HasError(FAILED)) << mode;
    }
}

TEST_F(ReadingAManifest, FailsOnAnItemWithoutAName)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>(Global("[item]\nentry_func = run\n")), "Not found: item.item_name");
    EXPECT_TRUE(log.HasError(FAILED));
}

TEST_F(ReadingAManifest, FailsOnALibraryWithoutAnEntryFunction)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>(Global("[item]\nitem_name = libx.so\n")), "Not found: item.entry_func");
    EXPECT_TRUE(log.InOrder({"bundle item name ------> [libx.so]", FAILED}));
    EXPECT_FALSE(log.HasPart("entry func ------>"));
}

TEST_F(ReadingAManifest, FailsOnAnItemNameOfFewerThanThreeCharacters)
{
    for (const char* const name : {"so", "x", ""}) {
        log.Restart();
        EXPECT_NE(Refusal<std::out_of_range>(Global("[item]\nitem_name = " + std::string(name) + "\n")), "") << name;
        EXPECT_TRUE(log.HasError(FAILED)) << name;
        EXPECT_FALSE(log.Has("==================================================")) << name;
    }
    EXPECT_NO_THROW(Read(Global("[item]\nitem_name = app\n")));
}

TEST_F(ReadingAManifest, TreatsAKeyBeforeTheFirstSectionAsAnItem)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>("colour = red\n" + Global()), "Not found: colour.item_name");
    EXPECT_TRUE(log.HasError(FAILED));
}

TEST_F(ReadingAManifest, TreatsTheGlobalSectionInAnotherCaseAsAnItemToo)
{
    EXPECT_EQ(Refusal<Poco::NotFoundException>("[Global]\nbundle_name = media\nbundle_load_mode = 0\n"),
              "Not found: Global.item_name");
    EXPECT_TRUE(log.InOrder({"bundle name ------> [media]", FAILED}));
}

TEST_F(ReadingAManifest, FailsWhenTheFileCannotBeReadToItsEnd)
{
    BrokenBuffer buffer(Global());
    std::istream stream(&buffer);
    EXPECT_THROW(BundleManifest{stream}, Poco::ReadFileException);
}

TEST_F(ReadingAManifest, RefusesADirectoryInPlaceOfTheFile)
{
    const TemporaryDirectory directory;
    Poco::FileInputStream stream(directory.Path().string(), std::ios::in);
    EXPECT_THROW(BundleManifest{stream}, Poco::Exception);
}

TEST_F(ReadingAManifest, TakesAFileUpToTheGreatestLength)
{
    std::string text = Global();
    text += ";" + std::string(BundleManifest::MAX_SIZE - text.size() - 1, 'x');
    ASSERT_EQ(text.size(), BundleManifest::MAX_SIZE);
    EXPECT_EQ(From(text)->GetBundleName(), "media");
    EXPECT_EQ(Refusal<Poco::DataFormatException>(text + "x"),
              "Bad data format: bundle manifest is longer than 1048576 bytes");
}

TEST_F(ReadingAManifest, RefusesReferencesThatExpandBeyondTheLimit)
{
    std::string text = Global();
    for (int i = 0; i < 8; ++i) {
        text += "key" + std::to_string(i) + " = ";
        for (int times = 0; times < 10; ++times) {
            text += "${global.key" + std::to_string(i + 1) + "}";
        }
        text += "\n";
    }
    text += "key8 = x\n[item]\nitem_name = ${global.key0}\n";
    EXPECT_EQ(Refusal<Poco::DataFormatException>(text),
              "Bad data format: bundle manifest expands to more than 4194304 bytes");
}

TEST_F(ReadingAManifest, RefusesKeysThatExceedTheLimitTogetherWithTheirSectionsName)
{
    std::string text = Global() + "[" + std::string(10'000, 's') + "]\n";
    for (int i = 0; i < 500; ++i) {
        text += "k" + std::to_string(i) + " = x\n";
    }
    EXPECT_EQ(Refusal<Poco::DataFormatException>(text),
              "Bad data format: bundle manifest expands to more than 4194304 bytes");
}

TEST_F(ReadingAManifest, RefusesAFileThatNeverEnds)
{
    EndlessBuffer buffer;
    std::istream stream(&buffer);
    EXPECT_THROW(BundleManifest{stream}, Poco::DataFormatException);
    EXPECT_LT(buffer.Given(), 2 * BundleManifest::MAX_SIZE);
}
