#include "engine/KvISettings.h"

#include "platform/FormatSettings.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

namespace kv {

const char* TableTypeName(TTableTypeImport type) {
    static const char* const names[TableTypeCount] = {
        "Paradox", "DBase",     "Text", "HTML",      "XLS",  "WKS",    "Quattro",
        "XML",     "Access",    "Word", "ADO",       "SPSS", "ADT",    "DBISAM",
        "Clarion", "Clipboard", "WAB",  "VCalendar", "ODS",  "Outlook"};
    return type < TableTypeCount ? names[type] : "";
}

void TKvIStatistic::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvIStatistic*>(&source);
    if (!s) return TPersistent::Assign(source);
    TotalCount = s->TotalCount;
    TotalImported = s->TotalImported;
    TotalAdded = s->TotalAdded;
    TotalDeleted = s->TotalDeleted;
    TotalUpdated = s->TotalUpdated;
    TotalErrors = s->TotalErrors;
    TotalSkipped = s->TotalSkipped;
    UpdateStep = s->UpdateStep;
    LastAction = s->LastAction;
    Text = s->Text;
    Result = s->Result;
}

void TKvIDataFormats::LoadRegionalSettings() {
    const TFormatSettings& fs = DefaultFormatSettings;
    DateSeparator = fs.DateSeparator;
    TimeSeparator = fs.TimeSeparator;
    DateOrder = doMDY;
    // The first letter of the short date format and the letters after each separator give the order.
    const std::string format = Utf8UpperCase(fs.ShortDateFormat);
    const std::string separator = Utf8Encode(fs.DateSeparator);
    char parts[3] = {0, 0, 0};
    if (!format.empty()) {
        parts[0] = format[0];
        std::string rest = format;
        for (int i = 1; i < 3; ++i) {
            size_t p = separator.empty() ? std::string::npos : rest.find(separator);
            if (p == std::string::npos || p + separator.size() >= rest.size()) break;
            rest.erase(0, p + separator.size());
            parts[i] = rest[0];
        }
    }
    if (parts[0] && parts[1] && parts[2]) {
        const std::string triple(parts, 3);
        if (triple == "DMY")
            DateOrder = doDMY;
        else if (triple == "DYM")
            DateOrder = doDYM;
        else if (triple == "MDY")
            DateOrder = doMDY;
        else if (triple == "MYD")
            DateOrder = doMYD;
        else if (triple == "YMD")
            DateOrder = doYMD;
        else if (triple == "YDM")
            DateOrder = doYDM;
    }
    DecimalSeparator = fs.DecimalSeparator;
    ThousandSeparator = fs.ThousandSeparator;
    CurrencyString = fs.CurrencyString;
    FourDigitYear = format.find("YYYY") != std::string::npos;
    LeadingZerosInDate = format.find("DD") != std::string::npos;
    CustomDateTimeFormat.clear();
}

void TKvIDataFormats::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvIDataFormats*>(&source);
    if (!s) return TPersistent::Assign(source);
    DateOrder = s->DateOrder;
    DateSeparator = s->DateSeparator;
    TimeSeparator = s->TimeSeparator;
    FourDigitYear = s->FourDigitYear;
    LeadingZerosInDate = s->LeadingZerosInDate;
    CustomDateTimeFormat = s->CustomDateTimeFormat;
    ThousandSeparator = s->ThousandSeparator;
    DecimalSeparator = s->DecimalSeparator;
    CurrencyString = s->CurrencyString;
    BooleanTrue = s->BooleanTrue;
    BooleanFalse = s->BooleanFalse;
    UseRegionalSettings = s->UseRegionalSettings;
}

void TKvIColumn::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvIColumn*>(&source);
    if (!s) return TCollectionItem::Assign(source);
    TCollectionBase* owner = Collection();
    if (owner) owner->BeginUpdate();
    Alignment = s->Alignment;
    FieldName = s->FieldName;
    Caption = s->Caption;
    DataType = s->DataType;
    Size = s->Size;
    Precision = s->Precision;
    if (owner) owner->EndUpdate();
}

void TKvILoadCondition::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvILoadCondition*>(&source);
    if (!s) return TPersistent::Assign(source);
    LoadWhen = s->LoadWhen;
    SkipIf = s->SkipIf;
}

void TKvISQLFieldNameOptions::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvISQLFieldNameOptions*>(&source);
    if (!s) return TPersistent::Assign(source);
    SQLQuoteOpen = s->SQLQuoteOpen;
    SQLQuoteClose = s->SQLQuoteClose;
}

void TKvISQLOptions::Assign(const TPersistent& source) {
    const auto* s = dynamic_cast<const TKvISQLOptions*>(&source);
    if (!s) return TPersistent::Assign(source);
    FieldNameCharCase = s->FieldNameCharCase;
    SQLQuote = s->SQLQuote;
    SQLTerm = s->SQLTerm;
    PostgreSQL = s->PostgreSQL;
    fieldNameOptions_.Assign(s->fieldNameOptions_);
}

} // namespace kv
