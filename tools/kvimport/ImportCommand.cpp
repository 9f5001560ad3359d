#include "ImportCommand.h"

#include "Destination.h"
#include "ImportOptions.h"
#include "Sources.h"
#include "TerminalFrontEnd.h"
#include "engine/Impcnst.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"

#include <filesystem>
#include <iostream>
#include <tuple>

namespace kv::cli {

namespace {

// The regional settings the run reads dates with, in step with the data formats, so that text the masks
// cannot read is still read by the same day-month order.
void AlignRegionalSettings(const TKvIDataFormats& f) {
    TFormatSettings& fs = DefaultFormatSettings;
    static const char* const orders[] = {"m/d/yyyy", "d/m/yyyy", "yyyy/m/d",
                                         "yyyy/d/m", "d/yyyy/m", "m/yyyy/d"};
    fs.ShortDateFormat = orders[f.DateOrder];
    if (f.DateSeparator) fs.DateSeparator = f.DateSeparator;
    if (f.TimeSeparator) fs.TimeSeparator = f.TimeSeparator;
}

void PrintSummary(const TKvImportBaseComponent& c, int errors) {
    const TKvIStatistic& s = c.Statistic();
    std::cout << "Processed: " << s.TotalImported << '\n'
              << "Added: " << s.TotalAdded << '\n'
              << "Updated: " << s.TotalUpdated << '\n'
              << "Deleted: " << s.TotalDeleted << '\n'
              << "Skipped: " << s.TotalSkipped << '\n'
              << "Errors: " << errors << '\n';
    const std::string& message = c.LastMessage();
    std::cout << message.substr(0, message.find('\r')) << '\n';
}

std::string DefaultTableName(const ImportOptions& o, SourceSetup& setup, CommandKind kind) {
    const TKvImportBaseComponent& source = setup.Component();
    if (o.Table) return *o.Table;
    if (kind == CommandKind::Run) {
        TStringList spec;
        spec.LoadFromFile(o.Source);
        const std::string saved = spec.Values("DestinationTable");
        if (!saved.empty()) return saved;
    }
    if (!source.TableName().empty()) return source.TableName();
    if (const std::string* sourceTable = o.SourceValue("source-table")) return *sourceTable;
    if (o.Clipboard) return "clipboard";
    if (o.Source == "-") return "stdin";
    const std::string inner = setup.InnerFileName();
    return std::filesystem::path(inner.empty() ? o.Source : inner).stem().string();
}

// The settings in the library's format, then the command line's own section: where the rows came from
// and which table received them.
void SaveSpecification(const ImportOptions& o, TKvImportBaseComponent& c, const SourceSetup& source,
                       const std::string& table) {
    c.SaveSpecification(*o.SaveSpec, o.Description.value_or("kvimport import of " + c.SourceFileName()),
                        false);
    TStringList lines;
    lines.LoadFromFile(*o.SaveSpec);
    lines.Add("[kvimport]");
    for (const std::string& line : source.SpecificationLines()) lines.Add(line);
    lines.Add("DestinationTable=" + table);
    lines.SaveToFile(*o.SaveSpec);
}

int Run(const ImportOptions& o, CommandKind kind) {
    TerminalFrontEnd ui(o.Quiet);
    for (const auto& param : o.Params) ui.Preset.insert(param.first);
    SetFrontEnd(&ui);
    struct Restore {
        ~Restore() { SetFrontEnd(nullptr); }
    } restore;

    TComponent root; // owns the import component and every table it can look up
    std::unique_ptr<SourceSetup> source =
        kind == CommandKind::Run ? OpenSpecificationSource(o, root) : OpenSource(o, root);
    TKvImportBaseComponent& c = source->Component();
    ApplyImportOptions(o, c);
    source->ApplyOptions(o);
    AlignRegionalSettings(c.DataFormats());
    c.SetAbortOnProblem(o.AbortOnError);
    c.Statistic().UpdateStep = 1000;
    const std::string table = DefaultTableName(o, *source, kind);
    if (o.SaveSpec) SaveSpecification(o, c, *source, table);

    Destination destination(o.Database, o.SqlFile.has_value(), root);
    destination.Prepare(table, *source, {c.Mappings().begin(), c.Mappings().end()});
    for (const std::string& name : o.Lookups) destination.AddLookup(name, c);
    c.SetDataSet(&destination.DataSet());
    // The types of a created table are a guess from part of the source: a later value that fits none of
    // them is kept as the text it is rather than losing its row.
    c.SetKeepUnconvertedValues(destination.Created());
    if (o.SqlFile) {
        c.SetActionKind(akGenerateSQL);
        c.SetSQLFileName(*o.SqlFile);
        c.SetKeepSQLScript(false); // the file receives the statements as they come
        c.SetTableName(table);
        // Apostrophes around texts and double quotes around names: what SQL databases read as such,
        // with the quote doubled inside.
        c.SQLOptions().SQLQuote = U'\'';
        c.SQLOptions().FieldNameOptions().SQLQuoteOpen = U'"';
        c.SQLOptions().FieldNameOptions().SQLQuoteClose = U'"';
        c.SQLOptions().PostgreSQL = destination.IsPostgreSQL();
        // A script meant for an empty database creates the table it fills.
        if (destination.Created()) c.SetSQLPrologue({destination.CreateStatement() + ";"});
    }
    destination.AttachTransactions(c);

    c.OnWarning = [&](TObject*, const TKvIWarning& w) {
        ui.ClearLine();
        std::cerr << WarningText(w) << '\n';
    };
    // Each failing row once, even when its error passes from the write to the row's outer guard. A write
    // sent late fails while a later row runs: its place tells it apart.
    int errors = 0;
    std::tuple<int, int64_t, std::string> lastReported{-1, 0, ""};
    c.OnErrorEvent = [&](TObject*, const std::exception& e, bool& abort) {
        const TKvIErrorPlace& place = c.ErrorPlace();
        auto reported =
            std::make_tuple(c.Statistic().TotalImported, place.Location.Row(), place.Location.Sheet);
        if (reported != lastReported) {
            ++errors;
            lastReported = std::move(reported);
            ui.ClearLine();
            const auto* own = dynamic_cast<const Exception*>(&e);
            std::cerr << "Row " << place.Location.Row()
                      << (place.Location.Sheet.empty() ? "" : " of sheet " + place.Location.Sheet)
                      << (place.Field.empty() ? "" : ", column " + place.Field) << ": "
                      << (own ? own->Message() : std::string(e.what())) << '\n';
        }
        abort = o.AbortOnError;
    };

    c.Execute();
    const TKvIResult result = c.Statistic().Result;
    if (result == irFailed) {
        destination.Rollback();
        const std::string& message = c.LastMessage();
        const size_t br = message.find("\r\n");
        std::cerr << (br == std::string::npos ? message : message.substr(br + 2)) << '\n';
        const int lost = destination.RolledBackRows(), kept = destination.CommittedRows();
        const auto rows = [](int n) { return std::to_string(n) + (n == 1 ? " row" : " rows"); };
        if (lost > 0)
            std::cerr << "The last " << (lost == 1 ? std::string("row") : std::to_string(lost) + " rows")
                      << " written since the last commit " << (lost == 1 ? "was" : "were") << " rolled back; "
                      << (kept > 0 ? "the " + rows(kept) + " written before were committed.\n"
                                   : "the table holds the rows committed before.\n");
        else if (kept > 0)
            std::cerr << "The " << rows(kept) << " written before the failure were committed.\n";
    } else {
        destination.Commit();
    }
    if (result == irUnknown) // the parameter prompt was left: nothing ran
        std::cerr << "Nothing was imported: the parameters were not given (--param NAME=VALUE gives one).\n";
    if (!o.Quiet && result != irUnknown) PrintSummary(c, errors);
    switch (result) {
    case irExecuted:
        return c.HadProblems() && !o.AllowErrors ? ExitProblems : ExitOk;
    case irFailed:
        return ExitFailed;
    default:
        return ExitCanceled; // canceled by Ctrl-C or at the parameter prompt
    }
}

} // namespace

int RunImport(const std::vector<std::string>& args) {
    return Run(ParseImportOptions(args, CommandKind::Import), CommandKind::Import);
}

int RunSpecification(const std::vector<std::string>& args) {
    return Run(ParseImportOptions(args, CommandKind::Run), CommandKind::Run);
}

} // namespace kv::cli
