// How the test of real files reads tests/data/text.

#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"
#include "support/DataFiles.h"

#include <filesystem>

namespace kv::test {

static const char* EncodingName(TTextEncoding encoding) {
    static const std::pair<TTextEncoding, const char*> names[] = {
        {encUtf8, "UTF-8"},        {encUtf8Bom, "UTF-8 with BOM"},
        {encUtf16LE, "UTF-16LE"},  {encUtf16BE, "UTF-16BE"},
        {encAnsi, "Windows-1252"}, {encUtf8Mixed, "UTF-8 with stray Windows-1252 bytes"},
    };
    for (const auto& [e, name] : names)
        if (e == encoding) return name;
    return "?";
}

std::string DumpTextFile(const std::string& path) {
    TKvTextFile file;
    std::string extension = std::filesystem::path(path).extension().string();
    for (char& ch : extension) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
    if (extension == ".csv") file.Settings().FieldDelimiter = U',';
    file.Open(path);

    TKvTextFields fields;
    fields.SetDelimiter(file.Settings().FieldDelimiter);
    fields.SetQualifier(file.Settings().TextQualifier);
    std::string out = "encoding: " + std::string(EncodingName(file.Encoding())) + "\n";
    for (int64_t row = 0; file.HasRow(row); ++row) {
        fields.SetLine(file.Row(row));
        out += std::to_string(file.LineNumber(row)) + ":";
        for (int i = 1; i <= fields.Count(); ++i)
            out += (i == 1 ? " " : "|") + DumpEscape(fields.FieldValue(i));
        out += "\n";
    }
    for (const auto& warning : file.Warnings())
        out += "warning line " + std::to_string(warning.Line) + ": " + warning.Message + "\n";
    return out;
}

} // namespace kv::test
