// Fuzz target: any bytes as a text file, under settings taken from the first four bytes. The text is
// loaded from memory and through a stream in tiny blocks with restart points every few rows, and both
// must give the same rows, encoding and warnings (at lines within the text), whether the rows are read
// forwards or backwards, and the count apart must agree; checking only the first bytes as UTF-8 when
// opening must give the same rows unless the whole text reads as Windows-1252; every row must be UTF-8;
// the fields of the byte walk must sit where the character walk puts them; reading ahead on a second
// thread must serve the same records, places, values and warnings; values by reference, column names and
// type guesses must come out without error.

#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"
#include "readers/text/KvTextReadAhead.h"
#include "readers/text/KvTextSniff.h"
#include "readers/text/KvTextTypes.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Seekable, and not a TMemoryStream, so the reader scans it block by block.
class TBlockStream : public kv::TStream {
public:
    explicit TBlockStream(std::string_view bytes) : bytes_(bytes) {}
    size_t Read(void* buffer, size_t count) override {
        const size_t n = std::min(count, bytes_.size() - std::min(position_, bytes_.size()));
        if (n) std::memcpy(buffer, bytes_.data() + position_, n);
        position_ += n;
        return n;
    }
    size_t Write(const void*, size_t) override { return 0; }
    int64_t Seek(int64_t offset, kv::TSeekOrigin origin) override {
        const int64_t base = origin == kv::soBeginning ? 0
                             : origin == kv::soCurrent ? static_cast<int64_t>(position_)
                                                       : static_cast<int64_t>(bytes_.size());
        position_ = static_cast<size_t>(std::max<int64_t>(base + offset, 0));
        return static_cast<int64_t>(position_);
    }

private:
    std::string_view bytes_;
    size_t position_ = 0;
};

void Check(bool condition) {
    if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4 || size > 65536) return 0;
    static const char32_t delimiters[] = {U',', U'\t', U';', 0, U'\u00A7', U'|', U'"', U'\n'};
    static const char32_t qualifiers[] = {U'"', U'\'', 0, U'\u00AB'};
    static const char* const separators[] = {"\r\n", "\n", "", "||", "\xC2\xB6", ";", "\r", "ab"};
    // The guess of the delimiter is one of its candidates, or the fallback; a delimiter given is kept.
    const std::string_view sample(reinterpret_cast<const char*>(data) + 3, size - 3);
    const char32_t guessed = kv::SniffTextDialect(sample, U'\t').Delimiter;
    if (guessed != U',' && guessed != U';' && guessed != U'\t' && guessed != U'|') std::abort();
    if (kv::SniffTextDialect(sample, U',', U'\u00A7').Delimiter != U'\u00A7') std::abort();

    kv::TKvTextFileSettings settings;
    settings.FieldDelimiter = delimiters[data[0] & 7];
    settings.TextQualifier = qualifiers[(data[0] >> 3) & 3];
    settings.RecordSeparator = separators[(data[0] >> 5) & 7];
    settings.FixedWidth = data[1] & 1;
    settings.FixedLineLength = (data[1] >> 1) & 7;
    settings.SkipEmptyRows = data[1] & 0x10;
    settings.SkipBlankLines = !(data[1] & 0x20);
    settings.RowFirst = data[2] & 7;
    settings.RowLast = (data[2] >> 3) & 7 ? (data[2] >> 3) & 7 : 2147483647;
    settings.RowFieldNames = data[2] >> 6;
    // Mostly found, sometimes set.
    static const kv::TTextEncoding encodings[] = {kv::encUtf8, kv::encAnsi, kv::encUtf16LE, kv::encUtf16BE,
                                                  kv::encUtf8Mixed};
    if ((data[3] >> 4) < 5) settings.Encoding = encodings[data[3] >> 4];
    const std::string text(reinterpret_cast<const char*>(data) + 4, size - 4);

    kv::TKvTextFile memory, blocks, late;
    memory.Settings() = settings;
    memory.OpenText(text);
    settings.JudgeBytes = 1 + (data[0] & 15);
    late.Settings() = settings;
    late.OpenText(text);
    settings.JudgeBytes = 0;
    settings.BlockSize = 1 + (data[3] & 15);
    settings.CheckpointRows = 1 + (data[3] & 3);
    blocks.Settings() = settings;
    TBlockStream stream(text);
    blocks.OpenStream(stream);
    const size_t openWarnings = blocks.Warnings().size();

    kv::TKvTextFields fields;
    fields.SetDelimiter(settings.FieldDelimiter);
    fields.SetQualifier(settings.TextQualifier);
    fields.SetFixedWidth(settings.FixedWidth);
    const char* const references[] = {"Text", "Text1-3", "Text2-9", "Field1", "Field2", "Field9", "x,\"\""};
    std::string value;
    std::vector<std::string> rows;
    for (int64_t i = 0; memory.HasRow(i); ++i) {
        rows.push_back(memory.Row(i));
        const std::string& row = rows.back();
        Check(blocks.HasRow(i) && row == blocks.Row(i));
        Check(memory.LineNumber(i) == blocks.LineNumber(i));
        Check(memory.RowSpan(i).Offset == blocks.RowSpan(i).Offset);
        Check(kv::IsValidUtf8(row));
        fields.SetLine(row);
        if (!settings.FixedWidth) {
            const auto positions =
                kv::SplitTextFieldPositions(row, settings.FieldDelimiter, settings.TextQualifier);
            Check(static_cast<int>(positions.size()) == fields.Count());
            for (int f = 1; f <= fields.Count(); ++f) {
                Check(fields.Position(f) == positions[static_cast<size_t>(f - 1)]);
                // Only values the walk saw a qualifier in are collapsed; collapsing all must agree.
                Check(fields.FieldValue(f) == kv::PostProcessTextValue(fields.RawField(f),
                                                                       settings.FieldDelimiter,
                                                                       settings.TextQualifier));
            }
        }
        for (const char* ref : references) {
            fields.GetValue(fields.ParseReference(ref), value);
            Check(kv::IsValidUtf8(value));
        }
    }
    const auto count = static_cast<int64_t>(rows.size());
    Check(!blocks.HasRow(count) && blocks.RowCount() == count && memory.CountRows() == count);
    for (int64_t i = count - 1; i >= 0; --i) Check(blocks.Row(i) == rows[static_cast<size_t>(i)]);
    Check(memory.Encoding() == blocks.Encoding());
    Check(memory.Warnings() == blocks.Warnings());
    const int64_t lines = 1 + static_cast<int64_t>(std::count(text.begin(), text.end(), '\n') +
                                                   std::count(text.begin(), text.end(), '\r'));
    for (const kv::TKvTextWarning& warning : memory.Warnings())
        Check(warning.Line >= 1 && warning.Line <= lines); // UTF-16 has a 0x0A or 0x0D byte for each
    Check(memory.HasHeader() == blocks.HasHeader() && memory.HeaderLine() == blocks.HeaderLine());
    Check(kv::IsValidUtf8(memory.HeaderLine()));

    // Stray bytes found late read as they would have, had the whole text been judged first.
    if (memory.Encoding() != kv::encAnsi) {
        for (int64_t i = 0; i < count; ++i)
            Check(late.HasRow(i) && late.Row(i) == rows[static_cast<size_t>(i)]);
        Check(!late.HasRow(count) && late.Encoding() == memory.Encoding());
        Check(late.HasHeader() == memory.HasHeader() && late.HeaderLine() == memory.HeaderLine());
        const auto byLine = [](std::vector<kv::TKvTextWarning> list) {
            std::stable_sort(
                list.begin(), list.end(),
                [](const kv::TKvTextWarning& a, const kv::TKvTextWarning& b) { return a.Line < b.Line; });
            return list;
        };
        Check(byLine(late.Warnings()) == byLine(memory.Warnings()));
    }

    kv::TKvTextReadAhead reader;
    kv::TKvTextFields ahead = fields;
    kv::TKvTextRef field;
    field.Kind = kv::trkField;
    std::vector<kv::TKvTextWarning> warnings;
    for (int64_t i = 0; reader.Has(blocks, i, ahead); ++i) {
        kv::TKvTextRowPlace place;
        reader.Take(blocks, i, ahead, place);
        Check(i < count);
        const kv::TKvTextRowPlace expected = memory.RowPlace(i);
        Check(place.Record == expected.Record && place.Offset == expected.Offset);
        fields.SetLine(rows[static_cast<size_t>(i)]);
        Check(ahead.Line() == fields.Line() && ahead.Count() == fields.Count());
        for (int f = 1; f <= fields.Count(); ++f) {
            field.First = f;
            ahead.GetValue(field, value);
            Check(value == fields.FieldValue(f));
        }
    }
    reader.TakeWarnings(warnings);
    reader.Stop();
    Check(std::equal(warnings.begin(), warnings.end(),
                     blocks.Warnings().begin() + static_cast<std::ptrdiff_t>(openWarnings),
                     blocks.Warnings().end()));
    if (memory.HasHeader())
        kv::TextColumnNames(memory.HeaderLine(), settings.FieldDelimiter, settings.TextQualifier);
    kv::TKvTextTypeOptions options;
    options.MaxScanRows = 20;
    kv::GuessTextColumnTypes(memory, fields, options,
                             settings.FixedWidth ? std::vector<std::string>{"Text1-2"}
                                                 : std::vector<std::string>{});
    return 0;
}
