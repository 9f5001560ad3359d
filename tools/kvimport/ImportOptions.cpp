#include "ImportOptions.h"

#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv::cli {

const char* const ImportUsage =
    "Usage: kvimport import SOURCE --db DEST.sqlite [--table NAME] [options]\n"
    "       kvimport import SOURCE.sqlite --source-table NAME --db DEST.sqlite [options]\n"
    "\n"
    "Imports SOURCE into a table of an SQLite database. A table that does not exist is created from the\n"
    "source's columns; rows commit every --commit-count rows.\n"
    "\n"
    "Source:\n"
    "  --format sqlite|text        the source's format (default: from the extension)\n"
    "  --source-table NAME         the table of an SQLite source\n"
    "  --spec FILE.kvi             load a saved specification before the other options apply\n"
    "  --save-spec FILE.kvi        save the settings that were used\n"
    "  --description TEXT          the description stored with --save-spec\n"
    "\n"
    "Destination:\n"
    "  --db DEST.sqlite            the database (created when missing)\n"
    "  --table NAME                the table (default: the source table or the file's base name)\n"
    "  --sql FILE                  write the SQL statements to FILE instead of changing the table\n"
    "  --lookup NAME               table NAME of the database can be used by LOOKUP (repeatable)\n"
    "\n"
    "Mapping and rows:\n"
    "  --map 'FIELD=EXPR'          a mapping line, in order (repeatable; none: by column name)\n"
    "  --mode MODE                 append, update, appendupdate, delete, copy or appendnewonly\n"
    "  --keys 'A;B'                key fields for update, appendupdate, delete and appendnewonly\n"
    "  --load-when EXPR            import a row only when EXPR is true\n"
    "  --skip-if EXPR              skip a row when EXPR is true\n"
    "  --param NAME=VALUE          a parameter whose value is the text VALUE (repeatable)\n"
    "  --commit-count N            rows per transaction (default 10000)\n"
    "  --trim none|right|left|both trim blanks of source values\n"
    "  --skip-empty-rows           skip rows whose values are all blank\n"
    "  --abort-on-error            stop at the first failing row (default: report it and go on)\n"
    "  --allow-errors              failed rows and warnings still end with exit status 0\n"
    "  --quiet                     no progress line and no summary\n"
    "\n"
    "Reading values:\n"
    "  --charset ansi|oem|ebcdic   the source text's character set\n"
    "  --date-order mdy|dmy|ymd|ydm|dym|myd   --date-separator C   --time-separator C\n"
    "  --decimal-separator C       --thousand-separator C          --currency TEXT\n"
    "                              (a decimal comma alone makes the point the grouping, and back)\n"
    "  --date-format MASK          read dates by a mask such as DD.MM.YYYY HH:NN\n"
    "  --true TEXT  --false TEXT   the texts of booleans\n"
    "\n"
    "Text sources (.csv .tsv .txt .dat .prn .tab .asc, '-' for standard input, --clipboard):\n"
    "  --delimiter tab|comma|semicolon|space|none|C   --qualifier quot|apos|none|C\n"
    "  --record-separator crlf|cr|lf|TEXT   --fixed   --line-length N\n"
    "  --first-row N   --last-row N   --names-row N   --max-scan-rows N (-1: every row)\n"
    "  --encoding auto|utf-8|windows-1252|utf-16le|utf-16be   --keep-empty-rows (blank lines as rows)\n"
    "\n"
    "At the end the counts are printed (Processed, Added, Updated, Deleted, Skipped, Errors) with the\n"
    "run's message. Each failing row is reported on stderr as 'Row N, column F: message' (N is the\n"
    "record of the source), each warning as 'Warning: line N: message'.\n"
    "Exit status: 0 done, 1 failed, 2 usage error, 3 canceled, 4 finished with problems (rows failed or\n"
    "data in doubt; 0 with --allow-errors).\n"
    "\n"
    "Examples:\n"
    "  kvimport import old.sqlite --source-table customers --db new.sqlite\n"
    "  kvimport import old.sqlite --source-table customers --db new.sqlite --mode appendupdate --keys ID \\\n"
    "      --map 'ID=CustNo' --map 'NAME=UPPER(TRIM(Company))' --save-spec customers.kvi\n";

const char* const RunUsage =
    "Usage: kvimport run SPEC.kvi --db DEST.sqlite [--table NAME] [options]\n"
    "\n"
    "Runs a saved specification (see 'kvimport import --help' for the options, which override the\n"
    "specification's settings).\n";

namespace {

char32_t OneChar(const std::string& option, const std::string& value) {
    if (value == "tab") return 9;
    if (value == "space") return U' ';
    if (Utf8Length(value) != 1)
        throw UsageError("--" + option + " expects one character, got '" + value + "'");
    size_t pos = 0;
    return Utf8Decode(value, pos);
}

int Number(const std::string& option, const std::string& value) {
    int n;
    if (!TryStrToInt(value, n)) throw UsageError("--" + option + " expects a number, got '" + value + "'");
    return n;
}

template <class T>
T Choice(const std::string& option, const std::string& value,
         std::initializer_list<std::pair<const char*, T>> choices) {
    for (const auto& [name, v] : choices)
        if (SameText(value, name)) return v;
    std::string list;
    for (const auto& c : choices) list += (list.empty() ? "" : ", ") + std::string(c.first);
    throw UsageError("--" + option + " expects one of " + list + "; got '" + value + "'");
}

} // namespace

ImportOptions ParseImportOptions(const std::vector<std::string>& args, CommandKind kind) {
    ImportOptions o;
    ArgReader r(args);
    std::vector<std::string> positionals;
    while (!r.AtEnd()) {
        if (!r.NextIsOption()) {
            if (!r.AtEnd()) positionals.push_back(r.TakePositional());
            continue;
        }
        const std::string opt = r.TakeOption();
        auto value = [&] { return r.TakeValue(opt); };
        if (opt == "help" || opt == "h")
            throw HelpRequested();
        else if (opt == "format")
            o.Format = value();
        else if (opt == "source-table")
            o.SourceTable = value();
        else if (opt == "db")
            o.Database = value();
        else if (opt == "table")
            o.Table = value();
        else if (opt == "spec" && kind != CommandKind::Run)
            o.Spec = value();
        else if (opt == "save-spec")
            o.SaveSpec = value();
        else if (opt == "description")
            o.Description = value();
        else if (opt == "map")
            o.Maps.push_back(value());
        else if (opt == "mode")
            o.Mode = Choice<TImportMode>(opt, value(),
                                         {{"append", imAppend},
                                          {"update", imUpdate},
                                          {"appendupdate", imAppendUpdate},
                                          {"delete", imDelete},
                                          {"copy", imCopy},
                                          {"appendnewonly", imAppendNewOnly}});
        else if (opt == "keys")
            o.Keys = value();
        else if (opt == "load-when")
            o.LoadWhen = value();
        else if (opt == "skip-if")
            o.SkipIf = value();
        else if (opt == "param") {
            const std::string nv = value();
            const size_t eq = nv.find('=');
            if (eq == std::string::npos || eq == 0)
                throw UsageError("--param expects NAME=VALUE, got '" + nv + "'");
            o.Params.emplace_back(nv.substr(0, eq), nv.substr(eq + 1));
        } else if (opt == "commit-count") {
            o.CommitCount = Number(opt, value());
            if (*o.CommitCount < 1) throw UsageError("--commit-count expects a number of at least 1");
        } else if (opt == "trim")
            o.Trim = Choice<TKvITrimSpaces>(opt, value(),
                                            {{"none", tsNoTrim},
                                             {"right", tsTrimRight},
                                             {"left", tsTrimLeft},
                                             {"both", tsTrimLeftRight}});
        else if (opt == "skip-empty-rows")
            o.SkipEmptyRows = true;
        else if (opt == "charset")
            o.Charset = Choice<TKvICharacterSet>(
                opt, value(), {{"ansi", csiANSI_WINDOWS}, {"oem", csiASCII_MSDOS}, {"ebcdic", csiEBCDIC}});
        else if (opt == "date-order")
            o.DateOrder = Choice<TKvIDateOrder>(opt, value(),
                                                {{"mdy", doMDY},
                                                 {"dmy", doDMY},
                                                 {"ymd", doYMD},
                                                 {"ydm", doYDM},
                                                 {"dym", doDYM},
                                                 {"myd", doMYD}});
        else if (opt == "date-separator")
            o.DateSeparator = OneChar(opt, value());
        else if (opt == "time-separator")
            o.TimeSeparator = OneChar(opt, value());
        else if (opt == "decimal-separator")
            o.DecimalSeparator = OneChar(opt, value());
        else if (opt == "thousand-separator") {
            const std::string v = value();
            o.ThousandSeparator = v == "none" ? 0 : OneChar(opt, v);
        } else if (opt == "currency")
            o.Currency = value();
        else if (opt == "date-format")
            o.DateFormat = value();
        else if (opt == "true")
            o.TrueText = value();
        else if (opt == "false")
            o.FalseText = value();
        else if (opt == "sql")
            o.SqlFile = value();
        else if (opt == "lookup")
            o.Lookups.push_back(value());
        else if (opt == "abort-on-error")
            o.AbortOnError = true;
        else if (opt == "allow-errors")
            o.AllowErrors = true;
        else if (opt == "keep-empty-rows")
            o.KeepEmptyRows = true;
        else if (opt == "encoding")
            o.Encoding = Choice<std::string>(opt, value(),
                                             {{"auto", "auto"},
                                              {"utf-8", "utf-8"},
                                              {"utf8", "utf-8"},
                                              {"windows-1252", "windows-1252"},
                                              {"cp1252", "windows-1252"},
                                              {"latin1", "windows-1252"},
                                              {"utf-16le", "utf-16le"},
                                              {"utf-16be", "utf-16be"}});
        else if (opt == "quiet" || opt == "q")
            o.Quiet = true;
        else if (opt == "clipboard")
            o.Clipboard = true;
        else if (opt == "delimiter") {
            const std::string v = value();
            o.Delimiter = v == "comma" ? U',' : v == "semicolon" ? U';' : v == "none" ? 0 : OneChar(opt, v);
        } else if (opt == "qualifier") {
            const std::string v = value();
            o.Qualifier = v == "quot" ? U'"' : v == "apos" ? U'\'' : v == "none" ? 0 : OneChar(opt, v);
        } else if (opt == "record-separator") {
            const std::string v = value();
            o.RecordSeparator = v == "crlf" ? "\r\n" : v == "cr" ? "\r" : v == "lf" ? "\n" : v;
            if (o.RecordSeparator->empty())
                throw UsageError("--record-separator expects crlf, cr, lf or a text");
        } else if (opt == "fixed")
            o.Fixed = true;
        else if (opt == "line-length")
            o.LineLength = Number(opt, value());
        else if (opt == "first-row")
            o.FirstRow = Number(opt, value());
        else if (opt == "last-row")
            o.LastRow = Number(opt, value());
        else if (opt == "names-row")
            o.NamesRow = Number(opt, value());
        else if (opt == "max-scan-rows")
            o.MaxScanRows = Number(opt, value());
        else if (opt == "rows" && kind == CommandKind::Preview) {
            o.PreviewRows = Number(opt, value());
            if (o.PreviewRows < 0) throw UsageError("--rows expects a number of rows, 0 or more");
        } else
            throw UsageError("unknown option --" + opt);
    }
    if (o.Clipboard) {
        if (!positionals.empty()) throw UsageError("--clipboard takes no SOURCE");
    } else if (positionals.size() != 1) {
        throw UsageError(positionals.empty() ? "a SOURCE is needed"
                                             : "only one SOURCE is taken; quote names with blanks");
    } else {
        o.Source = positionals[0];
    }
    if (kind != CommandKind::Preview && o.Database.empty() && !o.SqlFile)
        throw UsageError("--db DEST.sqlite is needed");
    return o;
}

std::string WarningText(const TKvIWarning& w) {
    return "Warning: " + (w.Line > 0 ? "line " + std::to_string(w.Line) + ": " : std::string()) + w.Message;
}

void ApplyImportOptions(const ImportOptions& o, TKvImportBaseComponent& c) {
    if (!o.Maps.empty()) {
        c.Mappings().Clear();
        for (const std::string& m : o.Maps) {
            if (m.find('=') == std::string::npos)
                throw UsageError("--map expects FIELD=EXPR, got '" + m + "'");
            c.Mappings().Add(m);
        }
    }
    if (o.Mode) c.SetMode(*o.Mode);
    if (o.Keys) c.SetDatasetKeys(*o.Keys);
    if (o.LoadWhen) c.LoadCondition().LoadWhen = *o.LoadWhen;
    if (o.SkipIf) c.LoadCondition().SkipIf = *o.SkipIf;
    if (o.CommitCount) c.SetCommitCount(*o.CommitCount);
    if (o.Trim) c.SetTrimSpaces(*o.Trim);
    if (o.SkipEmptyRows) c.SetOptions(c.Options().Include(soSkipEmptyRow));
    if (o.Charset) c.SetCharacterSet(*o.Charset);
    TKvIDataFormats& f = c.DataFormats();
    if (o.DateOrder) f.DateOrder = *o.DateOrder;
    if (o.DateSeparator) f.DateSeparator = *o.DateSeparator;
    if (o.TimeSeparator) f.TimeSeparator = *o.TimeSeparator;
    if (o.DecimalSeparator) f.DecimalSeparator = *o.DecimalSeparator;
    if (o.ThousandSeparator) f.ThousandSeparator = *o.ThousandSeparator;
    if (f.DecimalSeparator == f.ThousandSeparator) {
        if (o.ThousandSeparator && o.DecimalSeparator)
            throw UsageError("--decimal-separator and --thousand-separator must differ");
        // "--decimal-separator ," alone means the usual partner for grouping, not a clash with it.
        if (o.DecimalSeparator)
            f.ThousandSeparator = f.DecimalSeparator == U',' ? U'.' : f.DecimalSeparator == U'.' ? U',' : 0;
        else
            f.DecimalSeparator = f.ThousandSeparator == U',' ? U'.' : U',';
    }
    if (o.Currency) f.CurrencyString = *o.Currency;
    if (o.DateFormat) f.CustomDateTimeFormat = *o.DateFormat;
    if (o.TrueText) f.BooleanTrue = *o.TrueText;
    if (o.FalseText) f.BooleanFalse = *o.FalseText;
    if (o.Delimiter) c.SetFieldDelimiterCustom(*o.Delimiter);
    if (o.Qualifier) c.SetTextQualifierCustom(*o.Qualifier);
    if (o.RecordSeparator) c.SetRecordSeparatorCustom(*o.RecordSeparator);
    if (o.Fixed) c.SetFixed(*o.Fixed);
    if (o.FirstRow) c.SetRowFirst(*o.FirstRow);
    if (o.LastRow) c.SetRowLast(*o.LastRow);
    if (o.NamesRow) c.SetRowFieldNames(*o.NamesRow);
    if (o.MaxScanRows) c.SetMaxScanRows(*o.MaxScanRows);
    for (const auto& [name, text] : o.Params) {
        TKvIParameter* p = c.Parameters().ParamByName(name);
        if (!p) {
            p = &c.Parameters().Add();
            p->SetName(name);
            p->SetCaption(name);
        }
        // Offered as it stands and never asked: the front end is told these names are preset.
        p->SetParameterMode(ipmAsk);
        p->SetExpression(text);
    }
}

} // namespace kv::cli
