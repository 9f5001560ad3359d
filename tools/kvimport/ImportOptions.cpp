#include "ImportOptions.h"

#include "Options.h"
#include "SourceKinds.h"
#include "platform/Streams.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv::cli {

namespace {

template <class Field> auto Set(Field ImportOptions::*field) {
    return [field](ImportOptions& o, const std::string& v) { o.*field = v; };
}

auto SetFlag(bool ImportOptions::*field) {
    return [field](ImportOptions& o, const std::string&) { o.*field = true; };
}

auto SetChar(std::optional<char32_t> ImportOptions::*field, const char* option) {
    return [field, option](ImportOptions& o, const std::string& v) { o.*field = OptionChar(option, v); };
}

// The options every source takes, by section, in the order the help shows them.
const std::vector<OptionSpec> kSourceOptions = {
    {"format", "NAME", "the source's kind (default: from the extension)", Set(&ImportOptions::Format),
     ForImport | ForPreview},
    {"clipboard", nullptr, "read the clipboard's text (no SOURCE)", SetFlag(&ImportOptions::Clipboard),
     ForImport | ForPreview},
    {"member", "NAME", "the member of the zip archive SOURCE to read (default: its only one)",
     Set(&ImportOptions::Member), ForImport | ForPreview},
    {"spec", "FILE.kvi", "load a saved specification before the other options apply",
     Set(&ImportOptions::Spec), ForImport | ForPreview},
    {"save-spec", "FILE.kvi", "save the settings that were used", Set(&ImportOptions::SaveSpec),
     ForImport | ForRun},
    {"description", "TEXT", "the description stored with --save-spec", Set(&ImportOptions::Description),
     ForImport | ForRun},
};

const std::vector<OptionSpec> kDestinationOptions = {
    {"db", "DEST.sqlite", "the database (created when missing)", Set(&ImportOptions::Database),
     ForImport | ForRun},
    {"table", "NAME", "the table (default: the source table or the file's base name)",
     Set(&ImportOptions::Table), ForImport | ForRun},
    {"sql", "FILE", "write the SQL statements to FILE instead of changing the table",
     Set(&ImportOptions::SqlFile), ForImport | ForRun},
    {"lookup", "NAME", "table NAME of the database can be used by LOOKUP (repeatable)",
     [](ImportOptions& o, const std::string& v) { o.Lookups.push_back(v); }, ForImport | ForRun},
};

const std::vector<OptionSpec>
    kRowOptions =
        {
            {"map", "'FIELD=EXPR'", "a mapping line, in order (repeatable; none: by column name)",
             [](ImportOptions& o, const std::string& v) {
                 if (v.find('=') == std::string::npos)
                     throw UsageError("--map expects FIELD=EXPR, got '" + v + "'");
                 o.Maps.push_back(v);
             },
             ForImport | ForRun},
            {"mode", "MODE", "append, update, appendupdate, delete, copy or appendnewonly",
             SetChoice(&ImportOptions::Mode, "mode",
                       std::vector<std::pair<const char*, TImportMode>>{{"append", imAppend},
                                                                        {"update", imUpdate},
                                                                        {"appendupdate", imAppendUpdate},
                                                                        {"delete", imDelete},
                                                                        {"copy", imCopy},
                                                                        {"appendnewonly", imAppendNewOnly}}),
             ForImport | ForRun},
            {"keys", "'A;B'", "key fields for update, appendupdate, delete and appendnewonly",
             Set(&ImportOptions::Keys), ForImport | ForRun},
            {"load-when", "EXPR", "import a row only when EXPR is true", Set(&ImportOptions::LoadWhen),
             ForImport | ForRun},
            {"skip-if", "EXPR", "skip a row when EXPR is true", Set(&ImportOptions::SkipIf),
             ForImport | ForRun},
            {"param", "NAME=VALUE", "a parameter whose value is the text VALUE (repeatable)",
             [](ImportOptions& o, const std::string& v) {
                 const size_t eq = v.find('=');
                 if (eq == std::string::npos || eq == 0)
                     throw UsageError("--param expects NAME=VALUE, got '" + v + "'");
                 o.Params.emplace_back(v.substr(0, eq), v.substr(eq + 1));
             },
             ForImport | ForRun},
            {"commit-count", "N", "rows per transaction (default 100000)",
             [](ImportOptions& o, const std::string& v) {
                 o.CommitCount = OptionNumber("commit-count", v, 1, "a number of at least 1");
             },
             ForImport | ForRun},
            {"trim", "none|right|left|both", "trim blanks of source values",
             SetChoice(&ImportOptions::Trim, "trim",
                       std::vector<std::pair<const char*, TKvITrimSpaces>>{{"none", tsNoTrim},
                                                                           {"right", tsTrimRight},
                                                                           {"left", tsTrimLeft},
                                                                           {"both", tsTrimLeftRight}})},
            {"skip-empty-rows", nullptr, "skip rows whose values are all blank",
             SetFlag(&ImportOptions::SkipEmptyRows)},
            {"abort-on-error", nullptr, "stop at the first failing row (default: report it and go on)",
             SetFlag(&ImportOptions::AbortOnError), ForImport | ForRun},
            {"allow-errors", nullptr, "failed rows and warnings still end with exit status 0",
             SetFlag(&ImportOptions::AllowErrors), ForImport | ForRun},
            {"quiet", nullptr, "no progress line and no summary", SetFlag(&ImportOptions::Quiet),
             ForImport | ForRun},
            {"rows", "N|all", "how many rows to show (default 10)",
             [](ImportOptions& o, const std::string& v) {
                 o.PreviewRows = v == "all"
                                     ? INT64_MAX
                                     : OptionNumber("rows", v, 0, "a number of rows, 0 or more, or all");
             },
             ForPreview},
};

const std::vector<OptionSpec> kValueOptions =
    {
        {"charset", "ansi|oem|ebcdic", "the source text's character set",
         SetChoice(&ImportOptions::Charset, "charset",
                   std::vector<std::pair<const char*, TKvICharacterSet>>{
                       {"ansi", csiANSI_WINDOWS}, {"oem", csiASCII_MSDOS}, {"ebcdic", csiEBCDIC}})},
        {"date-order", "mdy|dmy|ymd|ydm|dym|myd", "the order of day, month and year in dates",
         SetChoice(&ImportOptions::DateOrder, "date-order",
                   std::vector<std::pair<const char*, TKvIDateOrder>>{{"mdy", doMDY},
                                                                      {"dmy", doDMY},
                                                                      {"ymd", doYMD},
                                                                      {"ydm", doYDM},
                                                                      {"dym", doDYM},
                                                                      {"myd", doMYD}})},
        {"date-separator", "C", "between the parts of a date",
         SetChar(&ImportOptions::DateSeparator, "date-separator")},
        {"time-separator", "C", "between the parts of a time",
         SetChar(&ImportOptions::TimeSeparator, "time-separator")},
        {"decimal-separator", "C", "a decimal comma alone makes the point the grouping, and back",
         SetChar(&ImportOptions::DecimalSeparator, "decimal-separator")},
        {"thousand-separator", "C|none", "the grouping of digits",
         [](ImportOptions& o, const std::string& v) {
             o.ThousandSeparator = v == "none" ? 0 : OptionChar("thousand-separator", v);
         }},
        {"currency", "TEXT", "the currency text numbers may carry", Set(&ImportOptions::Currency)},
        {"date-format", "MASK", "read dates by a mask such as DD.MM.YYYY HH:NN",
         Set(&ImportOptions::DateFormat)},
        {"true", "TEXT", "the text of true", Set(&ImportOptions::TrueText)},
        {"false", "TEXT", "the text of false", Set(&ImportOptions::FalseText)},
};

std::vector<OptionSection> Sections() {
    std::vector<OptionSection> sections = {{"Source", &kSourceOptions},
                                           {"Destination", &kDestinationOptions},
                                           {"Mapping and rows", &kRowOptions},
                                           {"Reading values", &kValueOptions}};
    for (const SourceKind* kind : SourceKinds()) sections.push_back({kind->Heading, &kind->Options});
    return sections;
}

unsigned CommandBit(CommandKind kind) {
    return kind == CommandKind::Import ? ForImport : kind == CommandKind::Run ? ForRun : ForPreview;
}

} // namespace

std::string ImportOptionHelp(unsigned command) {
    return OptionHelp(Sections(), command);
}

std::string ImportUsage() {
    std::string extensions;
    for (const SourceKind* kind : SourceKinds())
        for (const std::string& e : kind->Extensions) extensions += (extensions.empty() ? "" : " ") + e;
    return "Usage: kvimport import SOURCE --db DEST.sqlite [--table NAME] [options]\n"
           "       kvimport import SOURCE.sqlite --source-table NAME --db DEST.sqlite [options]\n"
           "\n"
           "Imports SOURCE into a table of an SQLite database. A table that does not exist is created from "
           "the\n"
           "source's columns; rows commit every --commit-count rows. The source's kind comes from its\n"
           "extension (" +
           extensions +
           ") or --format; '-' is standard input.\n"
           "A member of a zip archive is read by the kind of its own extension, without unpacking it\n"
           "(--member).\n" +
           ImportOptionHelp(ForImport) +
           "\n"
           "At the end the counts are printed (Processed, Added, Updated, Deleted, Skipped, Errors) with "
           "the\n"
           "run's message. Each failing row is reported on stderr as 'Row N, column F: message' (N is the\n"
           "record of the source), each warning as 'Warning: line N: message'.\n"
           "Exit status: 0 done, 1 failed, 2 usage error, 3 canceled, 4 finished with problems (rows failed "
           "or\n"
           "data in doubt; 0 with --allow-errors).\n"
           "\n"
           "Examples:\n"
           "  kvimport import orders.csv --db shop.sqlite\n"
           "  kvimport import exports.zip --member orders.csv --db shop.sqlite\n"
           "  kvimport import old.sqlite --source-table customers --db new.sqlite --mode appendupdate --keys "
           "ID \\\n"
           "      --map 'ID=CustNo' --map 'NAME=UPPER(TRIM(Company))' --save-spec customers.kvi\n";
}

std::string RunUsage() {
    return "Usage: kvimport run SPEC.kvi --db DEST.sqlite [--table NAME] [options]\n"
           "\n"
           "Runs a saved specification; the options override the specification's settings.\n" +
           ImportOptionHelp(ForRun);
}

namespace {

// The kind of source a saved specification names (text for one that names none); nullptr when the file
// cannot be read, which running it reports.
const SourceKind* SpecificationKind(const std::string& file) {
    if (!FileExists(file)) return nullptr;
    TStringList spec;
    try {
        spec.LoadFromFile(file);
    } catch (const std::exception&) {
        return nullptr;
    }
    const std::string saved = spec.Values("SourceKind");
    return SourceKindBySpecificationName(saved.empty() ? "Text" : saved);
}

} // namespace

ImportOptions ParseImportOptions(const std::vector<std::string>& args, CommandKind kind) {
    ImportOptions o;
    const unsigned command = CommandBit(kind);
    const std::vector<OptionSection> sections = Sections();
    std::vector<std::string> positionals;
    std::vector<std::pair<std::string, std::string>> sourceOptions;
    ArgReader r(args);
    while (!r.AtEnd()) {
        if (!r.NextIsOption()) {
            if (!r.AtEnd()) positionals.push_back(r.TakePositional());
            continue;
        }
        const std::string name = r.TakeOption();
        if (name == "help" || name == "h") throw HelpRequested();
        if (name == "q") {
            o.Quiet = true;
            continue;
        }
        const OptionSpec* found = nullptr;
        bool ofSource = false;
        for (size_t s = 0; s < sections.size() && !found; ++s)
            for (const OptionSpec& spec : *sections[s].Options)
                if (name == spec.Name && (spec.Commands & command)) {
                    found = &spec;
                    ofSource = s >= 4;
                    break;
                }
        if (!found) {
            std::vector<std::string> names;
            for (const OptionSection& section : sections)
                for (const OptionSpec& spec : *section.Options)
                    if (spec.Commands & command) names.push_back(spec.Name);
            const std::string nearest = NearestName(name, names);
            throw UsageError("unknown option --" + name +
                             (nearest.empty() ? "" : "; did you mean --" + nearest + "?"));
        }
        const std::string value = found->Value ? r.TakeValue(name) : std::string();
        // Kinds may share an option's name but not its values: a source's option is read once the
        // source's kind is known.
        if (ofSource)
            sourceOptions.emplace_back(name, value);
        else
            found->Apply(o, value);
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
    // An option of another kind of source would be silently ignored: say so instead.
    const SourceKind* chosen = kind != CommandKind::Run ? &SourceKindOf(o) : SpecificationKind(o.Source);
    for (const auto& [name, value] : sourceOptions) {
        const OptionSpec* spec = nullptr;
        for (size_t s = 4; s < sections.size() && !spec; ++s)
            if (!chosen || sections[s].Options == &chosen->Options)
                for (const OptionSpec& candidate : *sections[s].Options)
                    if (name == candidate.Name && (candidate.Commands & command)) spec = &candidate;
        if (!spec) throw UsageError("--" + name + " is not an option of " + chosen->Name + " sources");
        spec->Apply(o, value);
    }
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
