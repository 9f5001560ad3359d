#include "PreviewCommand.h"

#include "ImportOptions.h"
#include "Options.h"
#include "Sources.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <iostream>

namespace kv::cli {

std::string PreviewUsage() {
    return "Usage: kvimport preview SOURCE [--rows N] [options]\n"
           "\n"
           "Shows the columns kvimport finds in SOURCE, with the types a created table would get, and the "
           "first\n"
           "N rows (default 10) as a table, with the warnings an import would give.\n" +
           ImportOptionHelp(ForPreview) +
           "\n"
           "Example:\n"
           "  kvimport preview examples/customers.csv --rows 5\n";
}

namespace {

const char* TypeName(TKvIDataType t) {
    switch (t) {
    case itInteger:
        return "integer";
    case itFloat:
        return "float";
    case itDateTime:
        return "datetime";
    case itDate:
        return "date";
    case itTime:
        return "time";
    case itBoolean:
        return "boolean";
    case itBLOB:
    case itGraphic:
        return "blob";
    default:
        return "string";
    }
}

// At most `width` characters, the last one an ellipsis when something was cut; line breaks shown as "↵".
std::string Cell(const std::string& text, size_t width) {
    std::string flat;
    for (char c : text) flat += c == '\n' ? "\xE2\x86\xB5" : c == '\r' || c == '\t' ? " " : std::string(1, c);
    if (Utf8Length(flat) <= width) return flat;
    return Utf8Copy(flat, 1, static_cast<int64_t>(width) - 1) + "\xE2\x80\xA6";
}

void Pad(std::string& line, const std::string& text, size_t width) {
    line += text;
    line.append(width - std::min(width, Utf8Length(text)), ' ');
}

} // namespace

int RunPreview(const std::vector<std::string>& args) {
    const ImportOptions o = ParseImportOptions(args, CommandKind::Preview);
    TComponent root;
    std::unique_ptr<SourceSetup> source = OpenSource(o, root);
    TKvImportBaseComponent& c = source->Component();
    ApplyImportOptions(o, c);
    source->ApplyOptions(o);

    // The widths come from the first rows; later rows are printed as they come, so that a preview of
    // every row of a large file holds one row at a time.
    constexpr size_t kWidthRows = 100;
    constexpr size_t kMaxWidth = 24;
    std::vector<std::vector<std::string>> first;
    std::vector<size_t> widths;
    int64_t shown = 0;
    bool started = false;
    const auto print = [&](const std::vector<std::string>& values) {
        std::string line;
        for (size_t i = 0; i < widths.size(); ++i) {
            if (i) line += " | ";
            Pad(line, Cell(i < values.size() ? values[i] : std::string(), kMaxWidth), widths[i]);
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::cout << line << '\n';
    };
    const auto start = [&](bool streaming) {
        started = true;
        const TKvIColumns& columns = c.Columns();
        // What the import would warn of, the preview says too.
        for (const TKvIWarning& w : c.Warnings()) std::cerr << WarningText(w) << '\n';
        for (const auto& [label, text] : source->Properties()) std::cout << label << ": " << text << '\n';
        std::cout << "Columns:\n";
        size_t nameWidth = 4;
        for (int i = 0; i < columns.Count(); ++i)
            nameWidth = std::max(nameWidth, Utf8Length(columns.Columns(i).FieldName));
        std::vector<std::string> header;
        for (int i = 0; i < columns.Count(); ++i) {
            std::string line = "  " + std::to_string(i + 1) + (i + 1 < 10 ? "   " : i + 1 < 100 ? "  " : " ");
            Pad(line, columns.Columns(i).FieldName, nameWidth + 2);
            const std::string note = source->ColumnNote(i);
            if (note.empty()) {
                line += TypeName(columns.Columns(i).DataType);
            } else {
                Pad(line, TypeName(columns.Columns(i).DataType), 10);
                line += "(" + note + ")";
            }
            std::cout << line << '\n';
            header.push_back(Cell(columns.Columns(i).FieldName, kMaxWidth));
            widths.push_back(Utf8Length(header.back()));
        }
        for (const auto& row : first)
            for (size_t i = 0; i < widths.size() && i < row.size(); ++i)
                widths[i] = std::max(widths[i], Utf8Length(Cell(row[i], kMaxWidth)));
        if (streaming)
            std::cout << "\nRows:\n";
        else
            std::cout << "\nFirst " << first.size() << (first.size() == 1 ? " row" : " rows") << ":\n";
        print(header);
        std::string rule;
        for (size_t i = 0; i < widths.size(); ++i) rule += (i ? "-+-" : "") + std::string(widths[i], '-');
        std::cout << rule << '\n';
        for (const auto& row : first) print(row);
        first.clear();
    };
    source->Preview(std::max<int64_t>(o.PreviewRows, 0), [&](const std::vector<std::string>& values) {
        ++shown;
        if (started) {
            print(values);
        } else {
            first.push_back(values);
            if (first.size() == kWidthRows) start(true);
        }
    });
    if (!started)
        start(false);
    else
        std::cout << "(" << shown << " rows)\n";
    return ExitOk;
}

} // namespace kv::cli
