// The shared part of the cell sources on the command line, and calendars as a source.

#include "CellSources.h"

#include "platform/DateUtils.h"
#include "platform/SysUtils.h"
#include "sources/KvI2VCalendar.h"

#include <cmath>

namespace kv::cli {

std::function<void(ImportOptions&, const std::string&)> KeepOption(const char* name) {
    return [name](ImportOptions& o, const std::string& v) { o.SourceValues[name] = v; };
}

std::function<void(ImportOptions&, const std::string&)> KeepNumberOption(const char* name, int minimum,
                                                                         const char* what) {
    return [=](ImportOptions& o, const std::string& v) {
        o.SourceValues[name] = std::to_string(OptionNumber(name, v, minimum, what));
    };
}

namespace {

// A value as the preview shows it: dates in ISO form, whatever the locale.
std::string PreviewText(const Variant& v) {
    if (v.IsNullOrEmpty()) return {};
    if (v.VarType() == varDate) {
        const TDateTime d = v.AsDateTime();
        if (d > 0 && d < 1) return FormatDateTime("hh:nn:ss", d); // a time of day alone
        return FormatDateTime(d == std::floor(d) ? "yyyy-mm-dd" : "yyyy-mm-dd hh:nn:ss", d);
    }
    if (v.VarType() == varBoolean) return v.AsBoolean() ? "true" : "false";
    return v.AsString();
}

} // namespace

CellSource::CellSource(TKvImportFromCell* component, std::string specificationName, const std::string& file)
    : component_(component), specificationName_(std::move(specificationName)) {
    CheckSourceFile(file);
    component_->SetSourceFileName(file);
}

void CellSource::Preview(int64_t rows, const PreviewRow& row) {
    std::vector<std::string> texts;
    component_->ReadRows(
        rows,
        [&](const std::vector<Variant>& values) {
            texts.clear();
            for (const Variant& v : values) texts.push_back(PreviewText(v));
            row(texts);
        },
        [this](TSpreadSheetFile& reader) {
            properties_ = reader.FileProperties();
            declared_ = reader.DeclaredFields();
            declaredRead_ = true;
            Opened(reader);
        });
}

std::string CellSource::ColumnNote(int index) const {
    if (index < 0 || static_cast<size_t>(index) >= declared_.size()) return {};
    const TKvIDeclaredField& f = declared_[static_cast<size_t>(index)];
    std::string note = f.TypeName;
    if (f.Size > 0) note += (note.empty() ? "" : ", ") + std::to_string(f.Size);
    if (f.Decimals > 0) note += "." + std::to_string(f.Decimals);
    return note;
}

TFieldType CellSource::ColumnType(const TKvIColumn& column) const {
    for (const TKvIDeclaredField& f : Declared()) {
        if (!SameText(f.Name, column.FieldName)) continue;
        switch (f.CellType) {
        case ictInteger:
            return ftLargeint;
        case ictDecimal:
            return ftFloat;
        case ictDateTime:
            return ftDateTime;
        case ictDate:
            return ftDate;
        case ictTime:
            return ftTime;
        case ictBoolean:
            return ftBoolean;
        case ictMemo:
            return ftMemo;
        default:
            return ftString;
        }
    }
    return SourceSetup::ColumnType(column);
}

const std::vector<TKvIDeclaredField>& CellSource::Declared() const {
    // Once: a reader that declares nothing (a sheet) must not load its file again for every column.
    if (!declaredRead_) {
        declaredRead_ = true;
        component_->Inspect([this](TSpreadSheetFile& reader) { declared_ = reader.DeclaredFields(); });
    }
    return declared_;
}

void CellSource::ApplyOptions(const ImportOptions& o) {
    TKvImportFromCell& c = *component_;
    if (const std::string* sheet = o.SourceValue("sheet")) {
        int index = 0;
        if (TryStrToInt(*sheet, index) && index >= 1)
            c.SetSheetIndex(index - 1);
        else
            c.SetSheetName(*sheet);
    }
    if (const std::string* v = o.SourceValue("first-row")) c.SetRowFirst(std::stoi(*v));
    if (const std::string* v = o.SourceValue("last-row")) c.SetRowLast(std::stoi(*v));
    if (const std::string* v = o.SourceValue("names-row")) c.SetRowFieldNames(std::stoi(*v));
    if (o.SourceValue("include-deleted")) c.SetLoadRowStatutes({rsNormal, rsDeleted});
}

std::vector<OptionSpec> CellRowOptions(bool sheets) {
    std::vector<OptionSpec> options = {
        {"first-row", "N", "the first row (record) imported",
         KeepNumberOption("first-row", 1, "a row number of at least 1")},
        {"last-row", "N", "the last row (record) imported",
         KeepNumberOption("last-row", 1, "a row number of at least 1")},
    };
    if (sheets) {
        options.push_back(
            {"sheet", "N|NAME", "the sheet to import: its number from 1, or its name", KeepOption("sheet")});
        options.push_back({"names-row", "N", "the row holding the column names, 0 for none",
                           KeepNumberOption("names-row", 0, "a row number, 0 for none")});
    }
    return options;
}

void SheetSource::ApplyOptions(const ImportOptions& o) {
    CellSource::ApplyOptions(o);
    TKvImportFromCell& c = *component_;
    // Most sheets name their columns in the first row: a row of text over more rows is taken as names.
    if (!o.SourceValue("names-row"))
        c.SetGuessFieldNamesRow(true);
    else if (!o.SourceValue("first-row"))
        c.SetRowFirst(c.RowFieldNames() + 1);
}

std::string SheetSource::ColumnNote(int index) const {
    if (index < 0 || index >= component_->Columns().Count()) return {};
    switch (component_->Columns().Columns(index).DataType) {
    case itInteger:
        return "whole number";
    case itFloat:
        return "number";
    case itDate:
        return "date";
    case itDateTime:
        return "date-time";
    case itTime:
        return "time";
    case itBoolean:
        return "boolean";
    default:
        return "text";
    }
}

std::vector<OptionSpec> SheetOptions() {
    std::vector<OptionSpec> options = CellRowOptions(true);
    for (OptionSpec& o : options)
        if (std::string(o.Name) == "names-row")
            o.Help = "the row holding the column names, 0 for none (default: 1)";
    return options;
}

namespace {

const RegisterSourceKind kVCalendar({
    "vcalendar",
    {".ics", ".vcs"},
    "VCalendar",
    "Calendars (.ics .vcs): one row per event, one column per property",
    false,
    CellRowOptions(false),
    [](const ImportOptions&, const std::string& file, const TStringList*,
       TComponent& root) -> std::unique_ptr<SourceSetup> {
        return std::make_unique<CellSource>(new TKvImportFromVCalendar(&root), "VCalendar", file);
    },
});

} // namespace

} // namespace kv::cli
