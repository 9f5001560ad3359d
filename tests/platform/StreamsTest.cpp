// Memory and file streams. The byte reader's bounds are BinaryReaderTest's.

#include "platform/Streams.h"
#include "TestSupport.h"
#include "platform/Exceptions.h"
#include "platform/StringList.h"

namespace kv {
namespace {

TEST(Streams, MemoryStreamReadsWritesAndSeeks) {
    TMemoryStream m;
    m.WriteString("hello");
    m.SetPosition(10);
    m.WriteString("!"); // writing past the end grows the stream
    EXPECT_EQ(m.Size(), 11);
    m.SetPosition(0);
    EXPECT_EQ(m.ReadString(5), "hello");
    m.Seek(-1, soEnd);
    EXPECT_EQ(m.ReadString(99), "!");
    char b;
    EXPECT_EQ(m.Read(&b, 1), 0u);
    try {
        m.ReadBuffer(&b, 1);
        FAIL();
    } catch (const EReadError& e) {
        EXPECT_STREQ(e.what(), "Stream read error");
    }
}

TEST(Streams, FileStreamErrorsNameTheFile) {
    test::TempDir dir;
    try {
        TFileStream f(dir.File("missing.txt"), fmOpenRead);
        FAIL();
    } catch (const EFOpenError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot open file \"" + dir.File("missing.txt") + "\". No such file or directory");
    }
    EXPECT_THROW(TFileStream(dir.Path(), fmOpenRead), EFOpenError); // a directory is not a file
    EXPECT_THROW(TFileStream(dir.File("no/such/dir"), fmCreate), EFCreateError);
}

TEST(Streams, FileRoundTripAndStringListLoading) {
    test::TempDir dir;
    const std::string path = dir.File("lines.txt");
    test::WriteFile(path, "one\r\ntwo\ncaf\xE9"); // not UTF-8: read as Windows-1252
    TStringList list;
    list.LoadFromFile(path);
    ASSERT_EQ(list.Count(), 3);
    EXPECT_EQ(list[0], "one");
    EXPECT_EQ(list[2], "caf\xC3\xA9");
    TMemoryStream m;
    m.LoadFromFile(path);
    TFileStream copy(dir.File("copy.bin"), fmCreate);
    EXPECT_EQ(copy.CopyFrom(m, 0), m.Size());
    EXPECT_EQ(copy.Size(), m.Size());
}

} // namespace
} // namespace kv
