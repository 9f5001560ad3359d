// Reads every file under tests/data with its folder's reader and compares the dump with the expected
// file beside it; then checks the walk itself on files it writes.

#include "support/DataFiles.h"
#include "TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace kv::test {
namespace {

class DataFiles : public ::testing::TestWithParam<TDataCase> {};

TEST_P(DataFiles, ReadAsExpected) {
    const TDataCase& c = GetParam();
    TDataDump dump;
    for (const auto& reader : DataReaders())
        if (reader.Folder == c.Reader) dump = reader.Dump;
    // KV_UPDATE_EXPECTED=1 writes what the readers give as the expected files: review the diff.
    const std::string failure = CheckDataCase(c, dump, std::getenv("KV_UPDATE_EXPECTED") != nullptr);
    if (!failure.empty()) ADD_FAILURE() << c.Reader << "/" << c.File << ": " << failure;
}

std::string TestName(const ::testing::TestParamInfo<TDataCase>& param) {
    return DataCaseName(param.param);
}

INSTANTIATE_TEST_SUITE_P(Files, DataFiles, ::testing::ValuesIn(DiscoverDataCases(KV_TEST_DATA_DIR)),
                         TestName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(DataFiles);

/// A reader for the walk's own tests: the file's text in capitals, or an error for text starting "!".
std::string Shout(const std::string& path) {
    std::string text = ReadFile(path);
    if (!text.empty() && text[0] == '!') throw std::runtime_error("cannot read: " + text.substr(1));
    for (char& ch : text) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
    return text;
}

TEST(DataFileWalk, ComparesDumpsAndErrorsAndUpdatesOnlyRightOutcomes) {
    struct Case {
        const char* Name;
        const char* Input;
        const char* Expected; ///< nullptr: no expected file
        std::string Failure;  ///< "" when the case passes
        const char* Updated;  ///< the expected file after updating; nullptr: none
    } cases[] = {
        {"same.txt", "abc\n", "ABC\n", "", "ABC\n"},
        {"differs.txt", "abc\n", "ABD\n", "expected:\nABD\n\nbut reading gave:\nABC\n", "ABC\n"},
        {"newline.txt", "abc", "ABC\n", "expected:\nABC\n\nbut reading gave:\nABC", "ABC"},
        {"missing.txt", "abc", nullptr, "there is no missing.expected; reading gave:\nABC", "ABC"},
        {"fails.txt", "!broken", "", "reading failed: cannot read: broken", ""},
        {"bad-fails.txt", "!broken", "cannot read: broken\n", "", "cannot read: broken\n"},
        {"bad-no-newline.txt", "!broken", "cannot read: broken", "", "cannot read: broken\n"},
        {"bad-other-error.txt", "!broken", "cannot read: other\n",
         "expected:\ncannot read: other\n\nbut reading gave:\ncannot read: broken\n",
         "cannot read: broken\n"},
        // A wrong outcome is never kept.
        {"bad-reads.txt", "fine", nullptr,
         "reading should have failed (the name starts with \"bad-\") but gave:\nFINE", nullptr},
    };
    TempDir dir;
    std::filesystem::create_directories(dir.File("shout"));
    std::filesystem::create_directories(dir.File("other"));
    const auto expectedOf = [&](const char* name) {
        return std::filesystem::path(dir.File("shout/") + name).replace_extension(".expected").string();
    };
    for (const auto& c : cases) {
        WriteFile(dir.File("shout/") + c.Name, c.Input);
        if (c.Expected) WriteFile(expectedOf(c.Name), c.Expected);
    }
    // Hidden files, READMEs and files outside a reader's folder are no cases.
    for (const char* name : {"shout/.hidden", "shout/README.md", "top-level.txt", "other/x-1.dat"})
        WriteFile(dir.File(name), "");
    std::vector<TDataCase> found = DiscoverDataCases(dir.Path());
    ASSERT_EQ(found.size(), std::size(cases) + 1);
    EXPECT_EQ(DataCaseName(found.front()) + " " + found.front().Expected.substr(dir.Path().size()),
              "other_x_1_dat /other/x-1.expected");
    EXPECT_TRUE(DiscoverDataCases(dir.File("missing")).empty());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        const auto it =
            std::find_if(found.begin(), found.end(), [&](const TDataCase& f) { return f.File == c.Name; });
        ASSERT_NE(it, found.end());
        EXPECT_EQ(it->MustFail, std::string_view(c.Name).starts_with("bad-"));
        EXPECT_EQ(CheckDataCase(*it, Shout), c.Failure);
        CheckDataCase(*it, Shout, true);
        if (c.Updated) {
            EXPECT_EQ(ReadFile(expectedOf(c.Name)), c.Updated);
        } else {
            EXPECT_FALSE(std::filesystem::exists(expectedOf(c.Name)));
        }
    }
    EXPECT_EQ(CheckDataCase(found.back(), nullptr),
              "no dump is registered for the folder \"shout\" (see DataReaders)");
}

TEST(DataFileWalk, DumpsEscapeWhatWouldBreakTheirLines) {
    EXPECT_EQ(DumpEscape(std::string("é a|b c\\d\r\n\tnul\0bell\x07"
                                     "del\x7F",
                                     26)),
              "é a\\|b c\\\\d\\r\\n\\tnul\\x00bell\\x07del\\x7F");
}

} // namespace
} // namespace kv::test
