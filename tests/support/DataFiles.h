#pragma once
// The test of real files: tests/data/<reader>/<case>.<ext> is read by its folder's dump function and
// compared with <case>.expected beside it. A case named "bad-..." must fail; its expected file holds the
// error message.

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {
class TKvIVCalendar;
class TMSExcel;
class TMSExcelX;
class TStream;
class Variant;
} // namespace kv

namespace kv::test {

/// A folder of the shared corpus (../shared/corpus/NAME/), which may be absent; called with a file's name,
/// it gives the file's path.
class TCorpusFolder {
public:
    explicit TCorpusFolder(std::string_view name)
        : path_(KV_SHARED_DIR "/corpus/" + std::string(name) + "/") {}
    std::string operator()(std::string_view file) const { return path_ + std::string(file); }
    bool Here() const { return std::filesystem::is_directory(path_); }

private:
    std::string path_;
};

using TDataDump = std::function<std::string(const std::string& path)>;

struct TDataReader {
    std::string Folder; ///< the reader's family ("text", "dbf")
    TDataDump Dump;
};

const std::vector<TDataReader>& DataReaders();

struct TDataCase {
    std::string Reader; ///< the folder it is in
    std::string File;   ///< its name ("quoted-multiline.csv")
    std::string Path, Expected;
    bool MustFail = false;
};

/// The cases under `root`, sorted: every file but .expected ones, hidden files and READMEs.
std::vector<TDataCase> DiscoverDataCases(const std::string& root);

/// The folder and file with all but letters and digits made "_" ("text_quoted_multiline_csv").
std::string DataCaseName(const TDataCase& c);

/// "" when the case gives what it expects, else what went wrong. With `update`, a passing dump or error
/// is written to the expected file instead of compared.
std::string CheckDataCase(const TDataCase& c, const TDataDump& dump, bool update = false);

/// A value as part of one dump line: "\" and "|" escaped, control characters as \n, \r, \t, \xNN.
std::string DumpEscape(const std::string& value);

/// A cell's value: "<null>", true/false, the shortest exact number, an ISO date or date-time, or the
/// escaped text.
std::string DumpCellValue(const Variant& value);
/// A workbook as its properties, then each sheet ("sheet <n>: <name>") with a line per row of cells
/// ("<row>: <column letters>=<value>|..."), then the warnings.
std::string DumpXlsFile(const std::string& path);
/// "" when `workbook` (the stream `whole` was loaded from, every sheet kept) read in record mode gives each
/// sheet's rows, one LoadRecord at a time, with the cells `whole` keeps (values, types, styles,
/// alignments), and the same sizes, warnings and properties; else the first difference. Each sheet is
/// read with the filter set before the load and after it, twice from its first row.
std::string XlsRecordModeDifference(TMSExcel& whole, TStream& workbook, const std::string& password = "");
/// An Excel 2007+ workbook as DumpXlsFile writes a binary one.
std::string DumpXlsxFile(const std::string& path);
/// XlsRecordModeDifference for an Excel 2007+ workbook.
std::string XlsxRecordModeDifference(TMSExcelX& whole, TStream& workbook);
/// A delimited text file read with default settings (comma-delimited for .csv): "encoding: <name>", a line
/// a record ("<line number>: <field>|<field>"), then the warnings ("warning line <n>: <message>").
std::string DumpTextFile(const std::string& path);
/// A table (with its memo file beside it) as its declared fields, then one line per record.
std::string DumpDbfFile(const std::string& path);
/// An OpenDocument spreadsheet as its properties, then each sheet's rows of cells, then the warnings; read
/// again row by row in record mode, which must agree.
std::string DumpOdsFile(const std::string& path);
/// The rows of an XML document as the XML source reads them.
std::string DumpXmlFile(const std::string& path);
/// A calendar as its event count and fields ("field: <name> <type> <size>"), then a line per row of sheet 0
/// ("<row>: <name>=<value>|..."), date-times as yyyy-mm-dd hh:nn:ss.
std::string DumpVCalendarFile(const std::string& path);
/// A calendar loaded already, as DumpVCalendarFile writes it.
std::string DumpVCalendar(TKvIVCalendar& calendar);

} // namespace kv::test
