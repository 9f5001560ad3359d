#pragma once
// The source side of a command-line import: the source a kind opens (SourceKinds.h), how a saved
// specification names it again, and the columns a table created for it gets.

#include "ImportOptions.h"
#include "engine/KvIBase.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv::cli {

/// One source, set up and owned by the command.
class SourceSetup {
public:
    virtual ~SourceSetup() = default;
    virtual TKvImportBaseComponent& Component() = 0;
    /// Lines of the command line's own section of a saved specification ("SourceKind=SQLite", ...).
    virtual std::vector<std::string> SpecificationLines() const { return {}; }
    using PreviewRow = std::function<void(const std::vector<std::string>& values)>;
    /// The source's columns (into Component().Columns()), then its first `rows` rows as text, one at a
    /// time.
    virtual void Preview(int64_t rows, const PreviewRow& row) = 0;
    /// What a preview shows of the source before its columns, as (label, text) pairs.
    virtual std::vector<std::pair<std::string, std::string>> Properties() { return {}; }
    /// What a preview adds to column `index`'s line: the type and size the source declares.
    virtual std::string ColumnNote(int index) const {
        (void)index;
        return {};
    }
    /// The file the rows come from where it is not SOURCE itself (a member of an archive): a table created
    /// for them is named after it.
    virtual std::string InnerFileName() const { return {}; }
    /// Puts the options of this kind of source into the component, after a specification was loaded.
    virtual void ApplyOptions(const ImportOptions& options) { (void)options; }
    /// The field type a column gets in a created table (the destination names it in its own terms);
    /// ftVariant for a column of no particular type.
    virtual TFieldType ColumnType(const TKvIColumn& column) const;
};

/// Rows per transaction unless a specification or --commit-count says otherwise: a commit of an SQLite
/// database waits for the disk, and a few hundred rows per commit would spend most of a run waiting.
constexpr int DefaultCommitCount = 100000;

/// EFOpenError "Cannot open file ..." unless `file` is a file that exists (a directory says so).
void CheckSourceFile(const std::string& file);
/// The source named by the options of `kvimport import` (and `preview`), with --spec loaded.
std::unique_ptr<SourceSetup> OpenSource(const ImportOptions& options, TComponent& root);
/// The source a specification file names (`kvimport run`), with the specification loaded.
std::unique_ptr<SourceSetup> OpenSpecificationSource(const ImportOptions& options, TComponent& root);
/// The columns of a table to create for `source`: its columns, or the fields the mapping lines name
/// (typed like the source column a line takes as it stands, else of no particular type).
std::vector<TFieldDef> ColumnsForNewTable(SourceSetup& source, const std::vector<std::string>& maps);

} // namespace kv::cli
