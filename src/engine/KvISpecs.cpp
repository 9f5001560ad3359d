// Specification files: the settings of one import as lines of an initialisation-style text file, written
// and read back. Files are written in UTF-8; files of other programs in an 8-bit code page read too.

#include "engine/Impcnst.h"
#include "engine/KvIBase.h"
#include "engine/KvIUtils.h"
#include "platform/Format.h"
#include "platform/FrontEnd.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <filesystem>

namespace kv {

namespace {

std::string Flag(bool b) {
    return b ? "1" : "0";
}
std::string Hex(char32_t c) {
    return TranslateToHex(Utf8Encode(c));
}

// A number kept only when the key is there and reads as one.
template <class T> void ReadNumber(const TStringList& list, const char* key, T& target, int low, int high) {
    int v;
    if (list.IndexOfName(key) >= 0 && TryStrToInt(Trim(list.Values(key)), v) && v >= low && v <= high)
        target = static_cast<T>(v);
}

char32_t FirstChar(const std::string& s) {
    size_t pos = 0;
    return s.empty() ? 0 : Utf8Decode(s, pos);
}

} // namespace

void TKvImportBaseComponent::SaveSpecificationToStream(TStream& stream, const std::string& description) {
    TStringList l;
    l.Add("[Common]");
    l.Add("App=kvimport");
    l.Add("Description=KvImport: specification");
    l.Add("Specification=" + description);
    l.Add("TableName=" + tableName_);
    l.Add("DatasetKeys=" + datasetKeys_);
    l.Add("Mode=" + IntToStr(mode_));
    l.Add(std::string("TableType=") + TableTypeName(tableType_));
    l.Add("SourceFileName=" + sourceFileName_);
    l.Add("CharacterSet=" + IntToStr(characterSet_));
    l.Add("CommitCount=" + IntToStr(commitCount_));
    l.Add("[Mappings]");
    l.Add("Count=" + IntToStr(mappings_.Count()));
    for (int i = 0; i < mappings_.Count(); ++i) l.Add("Map" + IntToStr(i) + "=" + mappings_[i]);
    l.Add("[Text]");
    l.Add("FieldDelimiter=" + Hex(fieldDelimiterCustom_));
    l.Add("TextQualifier=" + Hex(textQualifierCustom_));
    l.Add("RecordSeparator=" + TranslateToHex(recordSeparatorCustom_));
    l.Add("Fixed=" + Flag(fixed_));
    l.Add("TrimSpaces=" + IntToStr(trimSpaces_));
    l.Add("RowFirst=" + IntToStr(rowFirst_));
    l.Add("RowLast=" + IntToStr(rowLast_));
    l.Add("RowFieldNames=" + IntToStr(rowFieldNames_));
    l.Add("MaxScanRows=" + IntToStr(maxScanRows_));
    l.Add("[DataFormat]");
    l.Add("DateOrder=" + IntToStr(dataFormats_.DateOrder));
    l.Add("DateSeparator=" + Hex(dataFormats_.DateSeparator));
    l.Add("TimeSeparator=" + Hex(dataFormats_.TimeSeparator));
    l.Add("ThousandSeparator=" + Hex(dataFormats_.ThousandSeparator));
    l.Add("DecimalSeparator=" + Hex(dataFormats_.DecimalSeparator));
    l.Add("CurrencyString=" + dataFormats_.CurrencyString);
    l.Add("FourDigitYear=" + Flag(dataFormats_.FourDigitYear));
    l.Add("LeadingZerosInDate=" + Flag(dataFormats_.LeadingZerosInDate));
    l.Add("CustomDateTimeFormat=" + dataFormats_.CustomDateTimeFormat);
    l.Add("BooleanTrue=" + dataFormats_.BooleanTrue);
    l.Add("BooleanFalse=" + dataFormats_.BooleanFalse);
    l.Add("UseRegionalSettings=" + Flag(dataFormats_.UseRegionalSettings));
    l.Add("[Condition]");
    l.Add("LoadWhen=" + loadCondition_.LoadWhen);
    l.Add("SkipIf=" + loadCondition_.SkipIf);
    l.SaveToStream(stream);
}

void TKvImportBaseComponent::LoadSpecificationFromStrings(const TStringList& l) {
    datasetKeys_ = l.Values("DatasetKeys");
    ReadNumber(l, "Mode", mode_, imAppend, imAppendNewOnly);
    tableName_ = l.Values("TableName");
    const std::string tableType = l.Values("TableType");
    for (int t = 0; t < TableTypeCount; ++t)
        if (!tableType.empty() && SameText(tableType, TableTypeName(static_cast<TTableTypeImport>(t))))
            tableType_ = static_cast<TTableTypeImport>(t);
    sourceFileName_ = l.Values("SourceFileName");
    ReadNumber(l, "CharacterSet", characterSet_, csiANSI_WINDOWS, csiEBCDIC);
    ReadNumber(l, "CommitCount", commitCount_, INT32_MIN, INT32_MAX);

    mappings_.Clear();
    for (int i = 0;; ++i) {
        const std::string line = l.Values("Map" + IntToStr(i));
        if (line.empty()) break;
        if (line == " = ") continue;
        mappings_.Add(line);
    }

    const std::string delimiter = TranslateFromHex(l.Values("FieldDelimiter"));
    if (!delimiter.empty()) SetFieldDelimiterCustom(FirstChar(delimiter));
    const std::string qualifier = TranslateFromHex(l.Values("TextQualifier"));
    if (!qualifier.empty()) SetTextQualifierCustom(FirstChar(qualifier));
    SetRecordSeparatorCustom(TranslateFromHex(l.Values("RecordSeparator")));
    fixed_ = l.Values("Fixed") == "1";
    ReadNumber(l, "TrimSpaces", trimSpaces_, tsNoTrim, tsTrimLeftRight);
    ReadNumber(l, "RowFirst", rowFirst_, INT32_MIN, INT32_MAX);
    ReadNumber(l, "RowLast", rowLast_, INT32_MIN, INT32_MAX);
    ReadNumber(l, "RowFieldNames", rowFieldNames_, INT32_MIN, INT32_MAX);
    ReadNumber(l, "MaxScanRows", maxScanRows_, INT32_MIN, INT32_MAX);
    ReadNumber(l, "DateOrder", dataFormats_.DateOrder, doMDY, doMYD);

    for (auto [key, target] :
         {std::pair<const char*, char32_t*>{"DateSeparator", &dataFormats_.DateSeparator},
          {"TimeSeparator", &dataFormats_.TimeSeparator},
          {"ThousandSeparator", &dataFormats_.ThousandSeparator},
          {"DecimalSeparator", &dataFormats_.DecimalSeparator}}) {
        const std::string decoded = TranslateFromHex(l.Values(key));
        if (!decoded.empty()) *target = FirstChar(decoded);
    }
    dataFormats_.CurrencyString = l.Values("CurrencyString");
    dataFormats_.FourDigitYear = l.Values("FourDigitYear") == "1";
    dataFormats_.LeadingZerosInDate = l.Values("LeadingZerosInDate") == "1";
    dataFormats_.CustomDateTimeFormat = l.Values("CustomDateTimeFormat");
    dataFormats_.UseRegionalSettings = l.Values("UseRegionalSettings") == "1";
    dataFormats_.BooleanTrue = l.Values("BooleanTrue");
    dataFormats_.BooleanFalse = l.Values("BooleanFalse");
    loadCondition_.LoadWhen = l.Values("LoadWhen");
    loadCondition_.SkipIf = l.Values("SkipIf");
}

void TKvImportBaseComponent::LoadSpecificationFromStream(TStream& stream) {
    TStringList list;
    list.LoadFromStream(stream);
    LoadSpecificationFromStrings(list);
}

void TKvImportBaseComponent::LoadSpecification(const std::string& fileName) {
    std::string name = fileName;
    if (name.empty()) {
        std::vector<TPromptField> fields(1);
        fields[0].Caption = "Specification file (*.kvi)";
        fields[0].Required = true;
        if (!FrontEnd().PromptValues(strSpecificationFilter, fields) || fields[0].Text.empty()) return;
        name = fields[0].Text;
    }
    if (OnBeforeLoadSpecification) OnBeforeLoadSpecification(this, name);
    if (!FileExists(name)) throw Exception(Format(strSpecFileNotExist, name));
    TFileStream file(name, fmOpenRead | fmShareDenyNone);
    LoadSpecificationFromStream(file);
    if (OnAfterLoadSpecification) OnAfterLoadSpecification(this, name);
}

void TKvImportBaseComponent::SaveSpecification(const std::string& fileName, const std::string& description,
                                               bool ask) {
    std::string name = fileName, text = description;
    if (ask) {
        std::string folder =
            specificationDir_.empty() ? std::filesystem::current_path().string() : specificationDir_;
        std::filesystem::path proposal = std::filesystem::path(folder) / specFileName_;
        proposal.replace_extension(".kvi");
        std::vector<TPromptField> fields(2);
        fields[0].Caption = "File name";
        fields[0].Text = name.empty() ? proposal.string() : name;
        fields[0].Required = true;
        fields[1].Caption = "Description";
        fields[1].Text = text;
        fields[1].Required = true;
        if (!FrontEnd().PromptValues(strSpecificationFilter, fields)) return;
        name = fields[0].Text;
        text = fields[1].Text;
    }
    if (name.empty() || text.empty()) return;
    if (OnBeforeSaveSpecification) OnBeforeSaveSpecification(this, name);
    TStringStream lines;
    SaveSpecificationToStream(lines, text);
    const std::string folder = std::filesystem::path(name).parent_path().string();
    CreateDirIfNotExists(folder);
    TFileStream file(name, fmCreate);
    file.WriteString(lines.DataString());
    if (OnAfterSaveSpecification) OnAfterSaveSpecification(this, name);
}

} // namespace kv
