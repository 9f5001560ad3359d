#pragma once
// Files a cell reader loads, on the command line. The kinds share everything but the source they make:
// the preview of declared fields, the column types of a created table and the row options.

#include "SourceKinds.h"
#include "sources/KvI2Cell.h"

#include <string>
#include <utility>
#include <vector>

namespace kv::cli {

class CellSource : public SourceSetup {
public:
    /// `component` is owned by the command's root; `specificationName` is the kind's name in specifications.
    CellSource(TKvImportFromCell* component, std::string specificationName, const std::string& file);
    TKvImportBaseComponent& Component() override { return *component_; }
    std::vector<std::string> SpecificationLines() const override {
        return {"SourceKind=" + specificationName_};
    }
    void Preview(int64_t rows, const PreviewRow& row) override;
    std::vector<std::pair<std::string, std::string>> Properties() override { return properties_; }
    std::string ColumnNote(int index) const override;
    /// A table declares its fields' types: a created table takes them.
    TFieldType ColumnType(const TKvIColumn& column) const override;
    void ApplyOptions(const ImportOptions& options) override;

protected:
    const std::vector<TKvIDeclaredField>& Declared() const;
    /// Sees the reader of a preview once it has opened the file, before the rows.
    virtual void Opened(TSpreadSheetFile& reader) { (void)reader; }

    TKvImportFromCell* component_;
    std::string specificationName_;
    std::vector<std::pair<std::string, std::string>> properties_;
    mutable std::vector<TKvIDeclaredField> declared_;
    mutable bool declaredRead_ = false;
};

/// A sheet of a workbook: its cells carry their types, which a column's note shows and a created table
/// takes; unless --names-row says, the first row names the columns when it looks like it.
class SheetSource : public CellSource {
public:
    using CellSource::CellSource;
    void ApplyOptions(const ImportOptions& options) override;
    std::string ColumnNote(int index) const override;
    /// A sheet declares no fields: the type is the one its cells gave the column.
    TFieldType ColumnType(const TKvIColumn& column) const override { return SourceSetup::ColumnType(column); }
};

/// The options of a sheet: CellRowOptions(true), the names row guessed unless given.
std::vector<OptionSpec> SheetOptions();

/// --first-row and --last-row, and with `sheets` --sheet and --names-row.
std::vector<OptionSpec> CellRowOptions(bool sheets);
/// Options that keep their value as given, or a checked number.
std::function<void(ImportOptions&, const std::string&)> KeepOption(const char* name);
std::function<void(ImportOptions&, const std::string&)> KeepNumberOption(const char* name, int minimum,
                                                                         const char* what);

} // namespace kv::cli
