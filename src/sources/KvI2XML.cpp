#include "sources/KvI2XML.h"

#include "engine/Impcnst.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"
#include "readers/text/KvTextTypes.h"
#include "sources/KvI2TXT.h"

#include <algorithm>
#include <filesystem>

namespace kv {

TKvImportFromXML::TKvImportFromXML(TComponent* owner) : TKvImportBaseComponent(owner) {
    SetTableType(teXML);
    SetDefaultSpecificationFileName("KvImport" + Extension());
}

TKvImportFromXML::~TKvImportFromXML() = default;

std::string TKvImportFromXML::FillFileFilters() const {
    return "XML files (*.XML)|*.XML|" + strAllFiles;
}

bool TKvImportFromXML::NotDefined(std::string& propName) {
    if (TKvImportBaseComponent::NotDefined(propName)) return true;
    if (!SourceFileName().empty() || SourceStream()) return false;
    propName = "SourceFileName";
    return true;
}

void TKvImportFromXML::BeforeImport() {
    TKvImportBaseComponent::BeforeImport();
    rows_.reset();
    file_.reset();
    stream_ = SourceStream();
    if (!stream_) {
        if (Trim(SourceFileName()).empty()) throw Exception(strFileNotDefined);
        file_ = std::make_unique<TFileStream>(SourceFileName(), fmOpenRead | fmShareDenyNone);
        stream_ = file_.get();
    }
    start_ = stream_->Position();
    rows_ = std::make_unique<TKvXMLRows>();
    rows_->Open(*stream_);
    encoding_ = rows_->Decoder().EncodingName();
    found_.clear();
    ReportWarnings();
    // Only a file read by name can be known again; a stream may hold anything next time.
    TPassed now = file_ ? Stamp() : TPassed();
    const bool known = file_ && now.Size >= 0 && now.File == passed_.File &&
                       now.RowElement == passed_.RowElement && now.Size == passed_.Size &&
                       now.Modified == passed_.Modified;
    if (!known) {
        now.Used = rowElement_.empty() ? rows_->ChooseRowElement() : rowElement_;
        passed_ = std::move(now);
    }
    used_ = passed_.Used;
    if (used_.empty())
        throw Exception((SourceFileName().empty() ? std::string() : SourceFileName() + ": ") +
                        "no element of the document has attributes or child elements to make rows of; "
                        "name the element that makes the rows");
    rows_->Start(used_);
    row_ = read_ = 0;
    ended_ = false;
    rowCount_ = -1;
}

TKvImportFromXML::TPassed TKvImportFromXML::Stamp() const {
    TPassed stamp;
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(SourceFileName(), error);
    const auto modified = std::filesystem::last_write_time(SourceFileName(), error);
    if (error) return stamp;
    stamp.File = SourceFileName();
    stamp.RowElement = rowElement_;
    stamp.Size = static_cast<int64_t>(size);
    stamp.Modified = static_cast<int64_t>(modified.time_since_epoch().count());
    return stamp;
}

void TKvImportFromXML::AfterImport() {
    if (rows_) ReportWarnings();
    rows_.reset();
    file_.reset();
    stream_ = nullptr;
}

void TKvImportFromXML::ReportWarnings() {
    rows_->TakeNewWarnings(found_);
    for (TKvXMLWarning& w : found_) AddWarning({w.Line, std::move(w.Message), w.Problem});
    found_.clear();
}

bool TKvImportFromXML::ReadRow() {
    if (ended_ || !rows_->NextRow()) {
        if (!ended_) rowCount_ = read_;
        ended_ = true;
        return false;
    }
    ++read_;
    return true;
}

void TKvImportFromXML::GoFirst() {
    if (read_ > 0 || ended_) {
        rows_->Start(used_);
        read_ = 0;
        ended_ = false;
    }
    // Rows before RowFirst are read and passed over, so that RowFirst counts rows rather than renumbering.
    row_ = std::max(RowFirst(), 1) - 1;
    while (read_ < row_ && ReadRow()) {
    }
}

bool TKvImportFromXML::NeedMore() {
    if (!rows_ || row_ >= RowLast()) return false;
    const bool more = read_ > row_ || (read_ == row_ && ReadRow());
    ReportWarnings();
    return more;
}

TKvISourceLocation TKvImportFromXML::SourceLocation() {
    TKvISourceLocation location;
    location.Record = row_ + 1;
    if (rows_) location.Line = rows_->RowLine();
    return location;
}

int TKvImportFromXML::GetTotalCount() {
    if (rowCount_ < 0 && stream_) {
        // A pass of its own over the same bytes; the run's reading takes up where it stood.
        std::unique_ptr<TFileStream> file;
        TStream* stream = stream_;
        const int64_t position = stream->Position();
        if (file_) {
            file = std::make_unique<TFileStream>(SourceFileName(), fmOpenRead | fmShareDenyNone);
            stream = file.get();
        }
        stream->SetPosition(start_);
        TKvXMLRows counter;
        counter.Open(*stream);
        counter.Start(used_);
        int64_t count = 0;
        while (counter.NextRow()) ++count;
        if (!file) stream->SetPosition(position);
        rowCount_ = count;
    }
    return static_cast<int>(std::clamp<int64_t>(rowCount_, 0, INT32_MAX));
}

double TKvImportFromXML::ReadFraction() {
    return rows_ ? rows_->ReadFraction() : -1;
}

Variant TKvImportFromXML::GetFieldValue(const Variant& value) {
    Variant v;
    ReadSourceColumn(ResolveSourceColumn(value.AsString()), v);
    return v;
}

int TKvImportFromXML::ResolveSourceColumn(const std::string& name) {
    return rows_ ? rows_->ColumnIndex(name, true) : -1;
}

bool TKvImportFromXML::ReadSourceColumn(int handle, Variant& value) {
    if (const std::string* text = rows_ ? rows_->Value(handle) : nullptr)
        value.AssignText(*text);
    else
        value.SetNull();
    return false;
}

bool TKvImportFromXML::HasSourceColumn(const std::string& name) {
    return rows_ && rows_->ColumnIndex(name, false) >= 0;
}

void TKvImportFromXML::DetectAutoMapping() {
    if (!rows_) return;
    TKvTextTypeGuesser guesser(TextTypeOptions(DataFormats(), MaxScanRows()));
    const int64_t scanned = MaxScanRows() < 0    ? INT64_MAX
                            : MaxScanRows() == 0 ? KvTextDefaultScanRows
                                                 : MaxScanRows();
    // With the columns known from a pass over this very file, only the rows the types come from are read.
    const bool known = file_ && passed_.Rows >= 0;
    if (known)
        for (const std::string& name : passed_.Columns) rows_->ColumnIndex(name, true);
    rows_->Start(used_);
    int64_t count = 0;
    for (; (!known || count < scanned) && rows_->NextRow(); ++count) {
        if (count >= scanned) continue;
        for (int c = 0; c < rows_->ColumnCount(); ++c)
            if (const std::string* text = rows_->Value(c)) {
                guesser.EnsureColumns(static_cast<size_t>(c) + 1);
                guesser.Add(static_cast<size_t>(c), *text, true);
            }
    }
    ReportWarnings();
    rowCount_ = known ? passed_.Rows : count;
    if (file_ && !known) {
        passed_.Columns.clear();
        for (int c = 0; c < rows_->ColumnCount(); ++c) passed_.Columns.push_back(rows_->ColumnName(c));
        passed_.Rows = count;
    }
    guesser.EnsureColumns(static_cast<size_t>(rows_->ColumnCount()));
    const std::vector<TKvTextColumnType> types = guesser.Columns();
    for (int c = 0; c < rows_->ColumnCount(); ++c) {
        TKvIColumn& column = Columns().Add();
        column.FieldName = rows_->ColumnName(c);
        column.Caption = column.FieldName;
        DescribeTextColumn(column, types[static_cast<size_t>(c)]);
    }
    rows_->Start(used_);
    read_ = 0;
    ended_ = false;
}

std::vector<std::vector<std::string>> TKvImportFromXML::PreviewRows(int count) {
    std::vector<std::vector<std::string>> rows;
    BeforeImport();
    try {
        Columns().Clear();
        DetectAutoMapping();
        while (static_cast<int>(rows.size()) < count && rows_->NextRow()) {
            std::vector<std::string>& row = rows.emplace_back();
            for (int c = 0; c < Columns().Count(); ++c) {
                const std::string* text = rows_->Value(c);
                row.push_back(text ? *text : std::string());
            }
        }
    } catch (...) {
        AfterImport();
        throw;
    }
    AfterImport();
    return rows;
}

void TKvImportFromXML::LoadSpecificationFromStrings(const TStringList& list) {
    TKvImportBaseComponent::LoadSpecificationFromStrings(list);
    if (list.IndexOfName("RowElement") >= 0) rowElement_ = list.Values("RowElement");
}

void TKvImportFromXML::SaveSpecificationToStream(TStream& stream, const std::string& description) {
    TKvImportBaseComponent::SaveSpecificationToStream(stream, description);
    TStringList l;
    l.Add("[XML]");
    l.Add("RowElement=" + rowElement_);
    l.SaveToStream(stream);
}

} // namespace kv
