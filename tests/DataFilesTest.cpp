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

TEST(DataFileWalk, FindsTheCasesOfEveryFolder) {
    TempDir dir;
    std::filesystem::create_directories(dir.File("shout"));
    std::filesystem::create_directories(dir.File("other"));
    for (const char* name : {"shout/b.txt", "shout/b.expected", "shout/bad-a.bin", "shout/.hidden",
                             "shout/README.md", "other/x-1.dat", "top-level.txt"})
        WriteFile(dir.File(name), "");
    std::string found;
    for (const auto& c : DiscoverDataCases(dir.Path()))
        found += DataCaseName(c) + (c.MustFail ? " fails" : "") + " " +
                 std::filesystem::path(c.Expected).filename().string() + "\n";
    EXPECT_EQ(found, "other_x_1_dat x-1.expected\n"
                     "shout_b_txt b.expected\n"
                     "shout_bad_a_bin fails bad-a.expected\n");
    EXPECT_TRUE(DiscoverDataCases(dir.File("missing")).empty());
}

TEST(DataFileWalk, ComparesDumpsAndErrors) {
    struct Case {
        const char* Name;
        const char* Input;
        const char* Expected; ///< nullptr: no expected file
        std::string Failure;  ///< "" when the case passes
    } cases[] = {
        {"same.txt", "abc\n", "ABC\n", ""},
        {"differs.txt", "abc\n", "ABD\n", "expected:\nABD\n\nbut reading gave:\nABC\n"},
        {"newline.txt", "abc", "ABC\n", "expected:\nABC\n\nbut reading gave:\nABC"},
        {"missing.txt", "abc", nullptr, "there is no missing.expected; reading gave:\nABC"},
        {"fails.txt", "!broken", "", "reading failed: cannot read: broken"},
        {"bad-fails.txt", "!broken", "cannot read: broken\n", ""},
        {"bad-no-newline.txt", "!broken", "cannot read: broken", ""},
        {"bad-other-error.txt", "!broken", "cannot read: other\n",
         "expected:\ncannot read: other\n\nbut reading gave:\ncannot read: broken\n"},
        {"bad-reads.txt", "fine", "",
         "reading should have failed (the name starts with \"bad-\") but gave:\nFINE"},
    };
    TempDir dir;
    std::filesystem::create_directories(dir.File("shout"));
    for (const auto& c : cases) {
        WriteFile(dir.File("shout/") + c.Name, c.Input);
        if (c.Expected)
            WriteFile(
                std::filesystem::path(dir.File("shout/") + c.Name).replace_extension(".expected").string(),
                c.Expected);
    }
    const auto found = DiscoverDataCases(dir.Path());
    ASSERT_EQ(found.size(), std::size(cases));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.Name);
        const auto it =
            std::find_if(found.begin(), found.end(), [&](const TDataCase& f) { return f.File == c.Name; });
        ASSERT_NE(it, found.end());
        EXPECT_EQ(CheckDataCase(*it, Shout), c.Failure);
    }
    EXPECT_EQ(CheckDataCase(found.front(), nullptr),
              "no dump is registered for the folder \"shout\" (see DataReaders)");
}

TEST(DataFileWalk, UpdatingWritesWhatTheReaderGives) {
    TempDir dir;
    std::filesystem::create_directories(dir.File("shout"));
    WriteFile(dir.File("shout/new.txt"), "abc\n");
    WriteFile(dir.File("shout/bad-new.txt"), "!oops");
    WriteFile(dir.File("shout/bad-wrong.txt"), "fine");
    for (const auto& c : DiscoverDataCases(dir.Path())) {
        const std::string failure = CheckDataCase(c, Shout, true);
        EXPECT_EQ(failure.empty(), c.File != "bad-wrong.txt") << failure;
    }
    EXPECT_EQ(ReadFile(dir.File("shout/new.expected")), "ABC\n");
    EXPECT_EQ(ReadFile(dir.File("shout/bad-new.expected")), "cannot read: oops\n");
    EXPECT_FALSE(
        std::filesystem::exists(dir.File("shout/bad-wrong.expected"))); // a wrong outcome is never kept
}

TEST(DataFileWalk, DumpsEscapeWhatWouldBreakTheirLines) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain é", "plain é"},
        {"a|b", "a\\|b"},
        {"back\\slash", "back\\\\slash"},
        {"two\r\nlines", "two\\r\\nlines"},
        {std::string("tab\tnul\0bell\x07"
                     "del\x7F",
                     17),
         "tab\\tnul\\x00bell\\x07del\\x7F"},
    };
    for (const auto& [value, dumped] : cases) EXPECT_EQ(DumpEscape(value), dumped);
}

} // namespace
} // namespace kv::test
