#pragma once
// A cell reader over cells given in code, for the tests of the cell model and the cell source: sheets of
// (row, column, value) triples, reported the way a file reader reports them, in whole-file or record mode.

#include "cells/KvCells.h"

#include <string>
#include <vector>

namespace kv::test {

struct FakeCell {
    int Row, Col;
    Variant Value;
    TKvICellType Type = ictString;
};

struct FakeSheet {
    std::string Name;
    std::vector<FakeCell> Cells;
    int AnnouncedCols = -1; ///< a dimensions event with these many columns when 0 or more
};

class FakeCellReader : public TSpreadSheetFile {
public:
    explicit FakeCellReader(std::vector<FakeSheet> sheets, bool recordMode = false,
                            std::vector<TKvIDeclaredField> fields = {})
        : sheets_(std::move(sheets)), fields_(std::move(fields)) {
        SetRecordMode(recordMode);
        if (!fields_.empty()) SetNameKind(nkFieldName);
    }

    void LoadFromStream(TStream& stream) override {
        TSpreadSheetFile::LoadFromStream(stream);
        BeforeLoad();
        if (RecordMode()) return;
        for (size_t s = 0; s < sheets_.size(); ++s) {
            bool skip = false;
            if (OnSheet) OnSheet(this, sheets_[s].Name, static_cast<int>(s), skip);
            if (skip) continue;
            if (sheets_[s].AnnouncedCols >= 0 && OnDimensions)
                OnDimensions(this, static_cast<int>(s), 0, 1000, 0, sheets_[s].AnnouncedCols);
            for (const FakeCell& c : sheets_[s].Cells)
                OnCellValue(this, static_cast<int>(s), c.Row, c.Col, 0, c.Value, taLeftJustify, c.Type);
        }
    }
    void LoadFromFile(const std::string& fileName) override {
        TSpreadSheetFile::LoadFromFile(fileName);
        TMemoryStream none;
        LoadFromStream(none);
    }
    /// Record mode: record `index` is row `index` of the first sheet; a row holding "deleted" in
    /// column 0 is a deleted record.
    bool LoadRecord(int index) override {
        TSpreadSheetFile::LoadRecord(index);
        const int record = next_++;
        bool deleted = false;
        for (const FakeCell& c : sheets_[0].Cells)
            if (c.Row == record && c.Col == 0 && c.Value.IsString() && c.Value.StringRef() == "deleted")
                deleted = true;
        if (!LoadRowStatutes().Contains(deleted ? rsDeleted : rsNormal)) return false;
        for (const FakeCell& c : sheets_[0].Cells)
            if (c.Row == record) OnCellValue(this, 0, index, c.Col, 0, c.Value, taLeftJustify, c.Type);
        return true;
    }
    void BeforeLoad() override {
        TSpreadSheetFile::BeforeLoad();
        next_ = 0;
    }
    void AfterLoad() override {
        if (AfterLoadCounter) ++*AfterLoadCounter;
    }
    std::vector<TKvIDeclaredField> DeclaredFields() const override { return fields_; }
    int64_t RecordCount() const override {
        if (!RecordMode()) return -1;
        int rows = 0;
        for (const FakeCell& c : sheets_[0].Cells) rows = std::max(rows, c.Row + 1);
        return rows;
    }

    int* AfterLoadCounter = nullptr; ///< counts AfterLoad calls where the test keeps it

private:
    std::vector<FakeSheet> sheets_;
    std::vector<TKvIDeclaredField> fields_;
    int next_ = 0;
};

} // namespace kv::test
