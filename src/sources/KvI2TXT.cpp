#include "sources/KvI2TXT.h"

#include "engine/Impcnst.h"
#include "platform/Clipboard.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"
#include "readers/text/KvTextTypes.h"

namespace kv {

TKvImportFromText::TKvImportFromText(TComponent* owner) : TKvImportBaseComponent(owner) {
    SetTableType(teText);
    SetDefaultSpecificationFileName("KvImport" + Extension());
}

std::string TKvImportFromText::FillFileFilters() const {
    return "Text files (*.CSV;*.TXT;*.DAT;*.PRN;*.TAB;*.ASC)|*.CSV;*.TXT;*.DAT;*.PRN;*.TAB;*.ASC|" +
           strAllFiles;
}

std::string TKvImportFromText::GetColumnFieldName(int index) const {
    // Fixed-width columns are ranges, never numbered fields: brackets are all they can have.
    return ColumnReference(index, !Fixed());
}

bool TKvImportFromText::NotDefined(std::string& propName) {
    if (TKvImportBaseComponent::NotDefined(propName)) return true;
    if (!SourceFileName().empty() || SourceStream() || sourceText_) return false;
    propName = "SourceFileName";
    return true;
}

void TKvImportFromText::BeforeImport() {
    TKvImportBaseComponent::BeforeImport();
    TKvTextFileSettings& s = file_.Settings();
    s.FieldDelimiter = FieldDelimiterChar();
    s.TextQualifier = TextQualifierChar();
    s.RecordSeparator = RecordSeparatorCustom();
    s.FixedWidth = Fixed();
    s.FixedLineLength = fixedLineLength_;
    s.RowFirst = RowFirst();
    s.RowLast = RowLast();
    s.RowFieldNames = RowFieldNames();
    s.SkipEmptyRows = Options().Contains(soSkipEmptyRow);
    s.SkipBlankLines = !keepEmptyRows_;
    s.Encoding = encoding_;
    reader_.Stop();
    reader_.TakeWarnings(found_); // what an earlier run read ahead and never reached
    found_.clear();
    if (TStream* stream = SourceStream())
        file_.OpenStream(*stream);
    else if (std::optional<std::string> text = TextToRead())
        file_.OpenText(std::move(*text));
    else if (SourceFileName() == "-")
        file_.OpenStdin();
    else
        file_.Open(SourceFileName());
    for (const TKvTextWarning& w : file_.Warnings()) AddWarning({w.Line, w.Message, w.Problem});
    fields_.SetDelimiter(FieldDelimiterChar());
    fields_.SetQualifier(TextQualifierChar());
    fields_.SetFixedWidth(Fixed());
    fields_.SetFieldWord(strField);
    fields_.SetTextWord(strTextFieldName);
    headerNames_.clear();
    if (!Fixed() && RowFieldNames() > 0 && file_.HasHeader())
        headerNames_ =
            TextColumnNames(file_.HeaderLine(), FieldDelimiterChar(), TextQualifierChar(), strField);
    references_.clear();
    resolved_.clear();
    rowOrder_.clear();
    rowPosition_ = 0;
    row_ = 0;
    place_ = {};
    rowCount_ = -1;
}

void TKvImportFromText::AfterImport() {
    reader_.Stop();
    reader_.SetRowHook(nullptr);
    file_.Close();
    rowOrder_.clear();
    references_.clear();
}

bool TKvImportFromText::NeedMore() {
    const bool more = readAhead_ ? reader_.Has(file_, row_, fields_) : file_.HasRow(row_);
    ReportWarnings();
    if (!more) rowCount_ = row_;
    return more;
}

// Hands the warnings the reading noticed so far to the run, as they come.
void TKvImportFromText::ReportWarnings() {
    reader_.TakeWarnings(found_);
    if (!reader_.Running()) file_.TakeNewWarnings(found_);
    for (TKvTextWarning& w : found_) AddWarning({w.Line, std::move(w.Message), w.Problem});
    found_.clear();
}

int TKvImportFromText::GetTotalCount() {
    if (rowCount_ < 0) {
        if (file_.CanCountApart()) {
            rowCount_ = file_.CountRows(); // beside the reading thread, which goes on
        } else {
            // A stream only its reader may read: the reading stops, and takes up again where it was.
            reader_.Stop();
            rowCount_ = file_.RowCount();
        }
    }
    return rowCount_ > INT32_MAX ? INT32_MAX : static_cast<int>(rowCount_);
}

double TKvImportFromText::ReadFraction() {
    return file_.ReadFraction(place_);
}

TKvISourceLocation TKvImportFromText::SourceLocation() {
    TKvISourceLocation location = TKvImportBaseComponent::SourceLocation();
    if (place_.Record == 0) return location;
    location.Record = place_.Record;
    location.Line = file_.StartLine(place_);
    if (location.Line == 0) location.Line = location.Record; // a stream only its reader may read
    return location;
}

TKvImportBaseComponent::TKvISourceMark TKvImportFromText::SourceMark() {
    TKvISourceMark mark{TKvImportBaseComponent::SourceLocation(), -1};
    if (place_.Record == 0) return mark;
    mark.Location.Record = place_.Record;
    mark.Offset = place_.Offset;
    return mark;
}

TKvISourceLocation TKvImportFromText::MarkedLocation(const TKvISourceMark& mark) {
    TKvISourceLocation location = mark.Location;
    if (mark.Offset < 0) return location;
    location.Line = file_.StartLine({location.Record, mark.Offset});
    if (location.Line == 0) location.Line = location.Record;
    return location;
}

void TKvImportFromText::SetCurrentRow(int64_t row, bool readAhead) {
    if (readAhead) {
        reader_.Take(file_, row, fields_, place_);
    } else {
        place_ = {};
        place_ = file_.RowPlace(row);
        fields_.SetLine(file_.Row(row));
    }
    rowPosition_ = 0;
}

bool TKvImportFromText::LoadRecord() {
    SetCurrentRow(row_, readAhead_);
    return TKvImportBaseComponent::LoadRecord();
}

Variant TKvImportFromText::GetFieldValue(const Variant& value) {
    std::string converted;
    const std::string& name = value.IsString() ? value.StringRef() : (converted = value.AsString());
    if (rowPosition_ < rowOrder_.size() && rowOrder_[rowPosition_]->first == name)
        return ValueOf(rowOrder_[rowPosition_++]->second);
    auto it = references_.find(name);
    if (it == references_.end()) it = references_.emplace(name, ReferenceTo(name)).first;
    // Remember the order of asking (map nodes stay where they are while the map grows).
    if (rowPosition_ >= rowOrder_.size()) rowOrder_.resize(rowPosition_ + 1);
    rowOrder_[rowPosition_++] = &*it;
    return ValueOf(it->second);
}

TKvTextRef TKvImportFromText::ReferenceTo(const std::string& name) const {
    for (size_t i = 0; i < headerNames_.size(); ++i) {
        if (SameText(headerNames_[i], name)) {
            TKvTextRef ref;
            ref.Kind = trkField;
            ref.First = static_cast<int64_t>(i) + 1;
            ref.Text = name;
            return ref;
        }
    }
    return fields_.ParseReference(name);
}

int TKvImportFromText::ResolveSourceColumn(const std::string& name) {
    resolved_.push_back(ReferenceTo(name));
    return static_cast<int>(resolved_.size()) - 1;
}

void TKvImportFromText::FinishColumnsAhead(std::shared_ptr<TKvIColumnFinisher> finisher) {
    if (!readAhead_) return;
    reader_.Stop();
    // The hook has its own copy of the references: nothing it reads is the importing thread's.
    reader_.SetRowHook([refs = resolved_, finisher = std::move(finisher)](TKvTextFields& row) {
        std::vector<Variant>& finished = row.Finished();
        std::vector<std::exception_ptr>& errors = row.FinishErrors();
        finished.resize(refs.size());
        errors.resize(refs.size());
        for (size_t handle = 0; handle < refs.size(); ++handle) {
            Variant& value = finished[handle];
            row.GetValue(refs[handle], value.TextToWrite());
            finisher->Finish(static_cast<int>(handle), value, errors[handle]);
        }
    });
}

bool TKvImportFromText::ReadSourceColumn(int handle, Variant& value) {
    const auto index = static_cast<size_t>(handle);
    if (index < fields_.Finished().size()) {
        if (const std::exception_ptr error = fields_.FinishErrors()[index]) std::rethrow_exception(error);
        value = std::move(fields_.Finished()[index]);
        return true;
    }
    const TKvTextRef& ref = resolved_[index];
    if (const std::string* prepared = fields_.PreparedValue(ref)) {
        value.AssignText(*prepared);
        return false;
    }
    fields_.GetValue(ref, scratch_);
    value.AssignText(scratch_);
    return false;
}

bool TKvImportFromText::IsWholeReference(std::string_view source) const {
    return source.rfind(strTextFieldName, 0) == 0;
}

bool TKvImportFromText::HasSourceColumn(const std::string& name) {
    for (const std::string& header : headerNames_)
        if (SameText(header, name)) return true;
    return fields_.ParseReference(name).Kind != trkConstant;
}

Variant TKvImportFromText::ValueOf(const TKvTextRef& ref) const {
    if (const std::string* prepared = fields_.PreparedValue(ref)) return Variant(*prepared);
    std::string text;
    fields_.GetValue(ref, text);
    return Variant(std::move(text));
}

TKvTextTypeOptions TextTypeOptions(const TKvIDataFormats& f, int maxScanRows) {
    TKvTextTypeOptions options;
    options.MaxScanRows = maxScanRows;
    options.DecimalSeparator = f.DecimalSeparator;
    options.ThousandSeparator = f.ThousandSeparator;
    options.DateOrder = f.DateOrder == doDMY ? tdoDMY : f.DateOrder == doMDY ? tdoMDY : tdoYMD;
    options.DateSeparators = "-/.";
    if (f.DateSeparator && options.DateSeparators.find(Utf8Encode(f.DateSeparator)) == std::string::npos)
        options.DateSeparators += Utf8Encode(f.DateSeparator);
    options.TimeSeparator = f.TimeSeparator ? f.TimeSeparator : U':';
    options.TrueText = f.BooleanTrue;
    options.FalseText = f.BooleanFalse;
    return options;
}

void DescribeTextColumn(TKvIColumn& c, const TKvTextColumnType& t) {
    c.Size = static_cast<int>(std::min<int64_t>(t.MaxLength, INT32_MAX));
    switch (t.Kind) {
    case tckInteger:
        c.DataType = itInteger, c.Alignment = taRightJustify;
        break;
    case tckFloat:
        c.DataType = itFloat, c.Alignment = taRightJustify;
        break;
    case tckDateTime:
        c.DataType = t.HasTime ? itDateTime : itDate;
        break;
    case tckBoolean:
        c.DataType = itBoolean;
        break;
    case tckString:
        c.DataType = itString;
        break;
    }
}

void TKvImportFromText::DetectAutoMapping() {
    const TKvTextTypeOptions options = TextTypeOptions(DataFormats(), MaxScanRows());
    std::vector<std::string> names;
    std::vector<TKvTextColumnType> types;
    if (Fixed()) {
        names.push_back(strTextFieldName); // the whole line; fixed-width columns are given as Text<a>-<b>
        types = GuessTextColumnTypes(file_, fields_, options, names);
    } else {
        names = headerNames_;
        types = GuessTextColumnTypes(file_, fields_, options);
    }
    for (size_t i = names.size(); i < types.size(); ++i)
        names.push_back(strField + IntToStr(static_cast<int64_t>(i) + 1));
    for (size_t i = 0; i < names.size(); ++i) {
        TKvIColumn& c = Columns().Add();
        c.FieldName = names[i];
        c.Caption = names[i];
        if (i < types.size()) DescribeTextColumn(c, types[i]);
    }
}

TKvTextDialect TKvImportFromText::DetectFormat(char32_t delimiter) {
    std::string sample;
    if (sourceText_) {
        sample = sourceText_->substr(0, KvTextSniffBytes);
    } else if (!SourceFileName().empty() && SourceFileName() != "-") {
        TFileStream stream(SourceFileName(), fmOpenRead | fmShareDenyNone);
        sample = stream.ReadString(KvTextSniffBytes);
    }
    const size_t dot = SourceFileName().find_last_of("./");
    const std::string extension =
        dot != std::string::npos && SourceFileName()[dot] == '.' ? SourceFileName().substr(dot) : "";
    const char32_t byName = TextDelimiterForExtension(extension);
    const char32_t fixed = delimiter ? delimiter : byName == U'\t' ? byName : 0;
    // A UTF-16 sample is read as text first; 8-bit text is sniffed by its bytes.
    const bool utf16 = sample.rfind("\xFF\xFE", 0) == 0 || sample.rfind("\xFE\xFF", 0) == 0;
    const TKvTextDialect dialect =
        SniffTextDialect(utf16 ? DecodeText(sample) : sample, byName ? byName : U'\t', fixed);
    SetFieldDelimiterCustom(dialect.Delimiter);
    SetTextQualifierCustom(dialect.Qualifier);
    SetRowFieldNames(dialect.HasHeader ? 1 : 0);
    SetRowFirst(dialect.HasHeader ? 2 : 1);
    return dialect;
}

std::vector<std::vector<std::string>> TKvImportFromText::PreviewRows(int count) {
    std::vector<std::vector<std::string>> rows;
    BeforeImport();
    try {
        Columns().Clear();
        DetectAutoMapping();
        const int64_t headerRecord = file_.HasHeader() ? RowFieldNames() : 0;
        for (int64_t r = 0; static_cast<int>(rows.size()) < count && file_.HasRow(r); ++r) {
            if (headerRecord && file_.LineNumber(r) == headerRecord) continue;
            SetCurrentRow(r, false);
            std::vector<std::string>& row = rows.emplace_back();
            for (int c = 0; c < Columns().Count(); ++c) {
                const std::string& name = Columns().Columns(c).FieldName;
                Variant v = Fixed() ? Variant(fields_.Line()) : GetFieldValue(Variant(name));
                row.push_back(v.AsString());
            }
        }
        ReportWarnings();
    } catch (...) {
        AfterImport();
        throw;
    }
    AfterImport();
    return rows;
}

TKvImportFromClipboard::TKvImportFromClipboard(TComponent* owner) : TKvImportFromText(owner) {
    SetTableType(teClipboard);
}

std::optional<std::string> TKvImportFromClipboard::TextToRead() {
    if (SourceText()) return SourceText();
    return Clipboard().GetText();
}

} // namespace kv
