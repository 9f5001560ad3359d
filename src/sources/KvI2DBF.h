#pragma once
// TKvImportFromDBF imports a dBase or FoxPro table, record by record, with its memo file.

#include "engine/Impcnst.h"
#include "readers/database/KvDBF.h"
#include "sources/KvI2Cell.h"

namespace kv {

class TKvImportFromDBF : public TKvImportFromCell {
public:
    explicit TKvImportFromDBF(TComponent* owner = nullptr) : TKvImportFromCell(owner) {
        SetTableType(teDBase);
    }

    /// Which memo file layout the table's memos are in.
    TDBFMemoType DBFMemoType() const { return memoType_; }
    void SetDBFMemoType(TDBFMemoType v) { memoType_ = v; }
    /// The code page of the table's text; 0 (the default) takes the one the table declares.
    int CodePage() const { return codePage_; }
    void SetCodePage(int v) { codePage_ = v; }

    std::string Extension() const override { return ".DBF"; }
    std::string FillFileFilters() const override { return "dBase files (*.DBF)|*.DBF|" + strAllFiles; }
    std::string ClassName() const override { return "TKvImportFromDBF"; }

protected:
    std::unique_ptr<TSpreadSheetFile> WorkBookCreation() override {
        auto reader = std::make_unique<TDBF>();
        reader->SetDBFMemoType(memoType_);
        reader->SetCodePage(codePage_);
        return reader;
    }

private:
    TDBFMemoType memoType_ = dmDBT;
    int codePage_ = 0;
};

} // namespace kv
