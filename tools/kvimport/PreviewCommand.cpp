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
    const std::vector<std::vector<std::string>> rows = source->Preview(std::max(o.PreviewRows, 0));
    const TKvIColumns& columns = c.Columns();
    // What the import would warn of, the preview says too.
    for (const TKvIWarning& w : c.Warnings()) std::cerr << WarningText(w) << '\n';

    std::cout << "Columns:\n";
    size_t nameWidth = 4;
    for (int i = 0; i < columns.Count(); ++i)
        nameWidth = std::max(nameWidth, Utf8Length(columns.Columns(i).FieldName));
    for (int i = 0; i < columns.Count(); ++i) {
        std::string line = "  " + std::to_string(i + 1) + (i + 1 < 10 ? "   " : i + 1 < 100 ? "  " : " ");
        Pad(line, columns.Columns(i).FieldName, nameWidth + 2);
        line += TypeName(columns.Columns(i).DataType);
        std::cout << line << '\n';
    }

    constexpr size_t kMaxWidth = 24;
    std::vector<size_t> widths(static_cast<size_t>(columns.Count()), 0);
    std::vector<std::string> header;
    for (int i = 0; i < columns.Count(); ++i) {
        header.push_back(Cell(columns.Columns(i).FieldName, kMaxWidth));
        widths[static_cast<size_t>(i)] = Utf8Length(header.back());
    }
    std::vector<std::vector<std::string>> cells;
    for (const auto& row : rows) {
        std::vector<std::string>& out = cells.emplace_back();
        for (size_t i = 0; i < widths.size(); ++i) {
            out.push_back(Cell(i < row.size() ? row[i] : std::string(), kMaxWidth));
            widths[i] = std::max(widths[i], Utf8Length(out.back()));
        }
    }
    std::cout << "\nFirst " << rows.size() << (rows.size() == 1 ? " row" : " rows") << ":\n";
    auto print = [&](const std::vector<std::string>& values) {
        std::string line;
        for (size_t i = 0; i < widths.size(); ++i) {
            if (i) line += " | ";
            Pad(line, values[i], widths[i]);
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();
        std::cout << line << '\n';
    };
    print(header);
    std::string rule;
    for (size_t i = 0; i < widths.size(); ++i) rule += (i ? "-+-" : "") + std::string(widths[i], '-');
    std::cout << rule << '\n';
    for (const auto& row : cells) print(row);
    return ExitOk;
}

} // namespace kv::cli
