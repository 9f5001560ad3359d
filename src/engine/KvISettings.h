#pragma once
// The enumerations of the import components and the small settings objects a component owns: the
// statistic, the data formats, the source columns, the row conditions and the SQL options.

#include "datasets/DataSet.h"
#include "platform/Collection.h"
#include "platform/Set.h"

#include <string>

namespace kv {

enum TImportMode : uint8_t {
    imAppend,       ///< every row becomes a new record
    imUpdate,       ///< rows update the records with their key; others are passed over
    imAppendUpdate, ///< update when the key exists, append otherwise
    imDelete,       ///< rows delete the records with their key
    imCopy,         ///< the destination is emptied first, then every row is appended
    imAppendNewOnly ///< append only rows whose key does not exist yet
};
using TImportModes = TSet<TImportMode>;

enum TKvIAction : uint8_t { iaUnknown, iaAdd, iaUpdate, iaDelete };
enum TKvIResult : uint8_t { irUnknown, irExecuted, irCanceled, irFailed };

enum TKvIOption : uint8_t {
    soShowMessage,        ///< report the outcome in a message box (without the progress display)
    soExtendedStatistic,  ///< show every counter in the progress display
    soSkipEmptyRow,       ///< skip rows whose values are all blank
    soUseAnimatedControl, ///< animate the progress display
    soWaitCursor,         ///< show the busy cursor while running
    soAutoCloseStatistic  ///< close the progress display at the end without waiting
};
using TKvIOptions = TSet<TKvIOption>;

enum TKvICharacterSet : uint8_t { csiANSI_WINDOWS, csiASCII_MSDOS, csiEBCDIC };
enum TKvIDateOrder : uint8_t { doMDY, doDMY, doYMD, doYDM, doDYM, doMYD };
enum TKvIDataType : uint8_t {
    itString,
    itInteger,
    itFloat,
    itDateTime,
    itDate,
    itTime,
    itBoolean,
    itBLOB,
    itMEMO,
    itGraphic
};
enum TKvITrimSpaces : uint8_t { tsNoTrim, tsTrimRight, tsTrimLeft, tsTrimLeftRight };
enum TKvIActionKind : uint8_t {
    akDatasetApply, ///< write to the destination dataset
    akGenerateSQL   ///< write SQL statements instead
};
enum TKvIFieldCharCase : uint8_t { ifcNormal, ifcUpperCase, ifcLowerCase, ifcProper };
enum TKvIFieldDelimiter : uint8_t { fdNone, fdCustom, fdTab, fdSemicolon, fdComma, fdSpace };
enum TKvITextQualifier : uint8_t { tqNone, tqCustom, tqQuot, tqApos };
enum TKvIRecordSeparator : uint8_t { rsCustom, rsCRLF, rsCR, rsLF };
enum TTableTypeImport : uint8_t {
    teParadox,
    teDBase,
    teText,
    teHTML,
    teXLS,
    teWKS,
    teQuattro,
    teXML,
    teAccess,
    teWord,
    teADO,
    teSPSS,
    teADT,
    teDBISAM,
    teClarion,
    teClipboard,
    teWAB,
    teVCalendar,
    teODS,
    teOutlook
};
using TImportFormatTypes = TSet<TTableTypeImport>;

/// The value name of a format without its "te" prefix ("Text", "XLS").
const char* TableTypeName(TTableTypeImport type);
constexpr int TableTypeCount = teOutlook + 1;

/// Counters of the current or last run.
class TKvIStatistic : public TPersistent {
public:
    int TotalCount = 0;    ///< rows the source announced
    int TotalImported = 0; ///< source rows processed so far
    int TotalAdded = 0;
    int TotalDeleted = 0;
    int TotalUpdated = 0;
    int TotalErrors = 0;  ///< rows whose load failed
    int TotalSkipped = 0; ///< rows skipped by conditions, emptiness or the application
    int UpdateStep = 1;   ///< the progress display is refreshed every UpdateStep rows
    TKvIAction LastAction = iaUnknown;
    std::string Text; ///< free text, kept and copied with the rest
    TKvIResult Result = irUnknown;

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvIStatistic"; }
};

/// How source text is read as dates, numbers and booleans.
class TKvIDataFormats : public TPersistent {
public:
    TKvIDateOrder DateOrder = doMDY;
    char32_t DateSeparator = U'/';
    char32_t TimeSeparator = U':';
    bool FourDigitYear = true;
    bool LeadingZerosInDate = true;
    std::string CustomDateTimeFormat; ///< when set, dates are read with this mask
    char32_t ThousandSeparator = U',';
    char32_t DecimalSeparator = U'.';
    std::string CurrencyString = "$";
    std::string BooleanTrue = "True";
    std::string BooleanFalse = "False";
    bool UseRegionalSettings = false; ///< reload the regional settings at the start of every import

    /// Takes separators, date order and currency from the process's regional settings.
    void LoadRegionalSettings();
    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvIDataFormats"; }
};

/// One column of the source.
class TKvIColumn : public TCollectionItem {
public:
    TAlignment Alignment = taLeftJustify;
    std::string FieldName;
    std::string Caption;
    TKvIDataType DataType = itString;
    int Size = 0;
    int Precision = 0;

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvIColumn"; }
};

/// The columns of a source, owned by its component.
class TKvIColumns : public TCollection<TKvIColumn> {
public:
    using TCollection::TCollection;
    TKvIColumn& Columns(int index) const { return Items(index); }
    void SetColumns(int index, const TKvIColumn& column) { SetItems(index, column); }
    std::string ClassName() const override { return "TKvIColumns"; }
};

/// The row conditions: a row is loaded when LoadWhen is empty or true, and skipped when SkipIf is true.
class TKvILoadCondition : public TPersistent {
public:
    std::string LoadWhen;
    std::string SkipIf;

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvILoadCondition"; }
};

/// The characters put around field names in generated SQL.
class TKvISQLFieldNameOptions : public TPersistent {
public:
    char32_t SQLQuoteOpen = U'[';
    char32_t SQLQuoteClose = U']';

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvISQLFieldNameOptions"; }
};

/// How generated SQL is written.
class TKvISQLOptions : public TPersistent {
public:
    TKvIFieldCharCase FieldNameCharCase = ifcNormal;
    char32_t SQLQuote = U'"';  ///< around text values
    std::string SQLTerm = ";"; ///< after every statement
    /// The script is for PostgreSQL: TRUE/FALSE, bytes as '\x..', and "schema.table" names a table in a
    /// schema (rather than 1/0, X'..' and one name).
    bool PostgreSQL = false;

    TKvISQLFieldNameOptions& FieldNameOptions() { return fieldNameOptions_; }
    const TKvISQLFieldNameOptions& FieldNameOptions() const { return fieldNameOptions_; }
    void SetFieldNameOptions(const TKvISQLFieldNameOptions& options) { fieldNameOptions_.Assign(options); }

    void Assign(const TPersistent& source) override;
    std::string ClassName() const override { return "TKvISQLOptions"; }

private:
    TKvISQLFieldNameOptions fieldNameOptions_;
};

} // namespace kv
