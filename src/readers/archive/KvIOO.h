#pragma once
// TKvIOpenOfficeSpreadsheet reads OpenDocument spreadsheets: the zip package (.ods, .ots) and the flat
// form, one XML document (.fods). It reports sheets and typed cells through the cell reader's events,
// fills the document properties from the metadata and lists the styles the document declares.
//
// The sheets are read from a stream of XML tokens, never from a tree: memory follows the largest row, not
// the sheet. Repeated rows and cells cost nothing while they are empty; repeated content is delivered up
// to the limits of a sheet, and a document that repeats more than MaxRepeatedCells copies fails.

#include "cells/KvCells.h"
#include "readers/spreadsheet/KvI_Sum.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

// The reader's own texts.
extern std::string strOONotSpreadsheet; // "File is not an OpenDocument spreadsheet"
extern std::string strOOEncrypted;      // "The document is encrypted with a password..."

/// The font a text style names.
struct TKvIOOFont {
    std::string Name;
    double Size = 0; ///< in points; 0 when the style gives none
    bool Bold = false;
    bool Italic = false;
    bool Underline = false;
};

/// A style of the document: its family ("table-cell", "table", "text", ...), name and parent.
class TKvIOOStyle : public TPersistent {
public:
    const std::string& StyleFamily() const { return family_; }
    void SetStyleFamily(std::string v) { family_ = std::move(v); }
    const std::string& StyleName() const { return name_; }
    void SetStyleName(std::string v) { name_ = std::move(v); }
    /// The style this one inherits from (owned by the same list); nullptr when none is known.
    TKvIOOStyle* StyleParent() const { return parent_; }
    void SetStyleParent(TKvIOOStyle* v) { parent_ = v; }
    std::string ClassName() const override { return "TKvIOOStyle"; }

private:
    std::string family_, name_;
    TKvIOOStyle* parent_ = nullptr;
};

/// A style of cells, paragraphs or text: its font, alignment and background colour.
class TKvIOOStyleText : public TKvIOOStyle {
public:
    TKvIOOFont& TextFont() { return font_; }
    const TKvIOOFont& TextFont() const { return font_; }
    void SetTextFont(const TKvIOOFont& v) { font_ = v; }
    TAlignment Alignment() const { return alignment_; }
    void SetAlignment(TAlignment v) { alignment_ = v; }
    /// Blue, green and red bytes from high to low (0x00BBGGRR); white by default.
    int32_t Color() const { return color_; }
    void SetColor(int32_t v) { color_ = v; }
    std::string ClassName() const override { return "TKvIOOStyleText"; }

private:
    TKvIOOFont font_;
    TAlignment alignment_ = taLeftJustify;
    int32_t color_ = 16777215;
};

class TKvIOOStyleGraphic : public TKvIOOStyle {
public:
    std::string ClassName() const override { return "TKvIOOStyleGraphic"; }
};

/// A list style: what numbers or bullets its items.
class TKvIOOStyleNumList : public TKvIOOStyle {
public:
    const std::string& NumPrefix() const { return prefix_; }
    void SetNumPrefix(std::string v) { prefix_ = std::move(v); }
    const std::string& NumSufix() const { return suffix_; }
    void SetNumSufix(std::string v) { suffix_ = std::move(v); }
    const std::string& NumFormat() const { return format_; }
    void SetNumFormat(std::string v) { format_ = std::move(v); }
    int SpaceBefore() const { return spaceBefore_; }
    void SetSpaceBefore(int v) { spaceBefore_ = v; }
    const std::string& BulletChar() const { return bullet_; }
    void SetBulletChar(std::string v) { bullet_ = std::move(v); }
    std::string ClassName() const override { return "TKvIOOStyleNumList"; }

private:
    std::string prefix_, suffix_, format_;
    int spaceBefore_ = 0;
    std::string bullet_ = "\x07"; // the odd default is intended
};

/// The styles of a document, in the order met; owns them.
class TKvIOOStyles {
public:
    int Count() const { return static_cast<int>(styles_.size()); }
    /// Adds `style` at the end; gives it back.
    TKvIOOStyle* Add(std::unique_ptr<TKvIOOStyle> style);
    /// The style at `index`; nullptr below 0 or at Count and beyond.
    TKvIOOStyle* GetStyle(int index) const;
    /// The first style named exactly `name` (case counts); nullptr when none.
    TKvIOOStyle* FindByStyleName(std::string_view name) const;
    /// Frees every style, last to first.
    void ClearStyles();

private:
    std::vector<std::unique_ptr<TKvIOOStyle>> styles_;
};

/// A sheet as the document holds it.
struct TKvIOOSheetInfo {
    std::string Name;
    bool Hidden = false;
    int Rows = 0;    ///< rows up to the last with a value
    int Columns = 0; ///< columns up to the last with a value
};

/// The OpenDocument spreadsheet reader. In record mode (off by default) LoadFromStream reads the document
/// for its sheets, sizes and properties and keeps no cells; BeforeLoad then goes to the first row of sheet
/// SheetFilter and LoadRecord(n) reports the cells of its row n, reading on through the document (asking
/// for an earlier row reads it again from the start). The stream must stay open while records are read.
class TKvIOpenOfficeSpreadsheet : public TSpreadSheetFile {
public:
    /// The most rows and columns a sheet holds; cells beyond are not read.
    static constexpr int MaxRows = 1048576;
    static constexpr int MaxColumns = 16384;

    explicit TKvIOpenOfficeSpreadsheet(TComponent* owner = nullptr);
    ~TKvIOpenOfficeSpreadsheet() override;
    TKvIOpenOfficeSpreadsheet(const TKvIOpenOfficeSpreadsheet&) = delete;
    TKvIOpenOfficeSpreadsheet& operator=(const TKvIOpenOfficeSpreadsheet&) = delete;

    TKvISummaryInformation& SummaryInformation() { return summary_; }
    const TKvISummaryInformation& SummaryInformation() const { return summary_; }
    void SetSummaryInformation(const TKvISummaryInformation& v) { summary_.Assign(v); }
    /// The sheet being read, passed as sheetNo in every event.
    int SheetIndex() const { return sheetIndex_; }
    void SetSheetIndex(int v) { sheetIndex_ = v; }
    /// The styles of the last load: those of styles.xml, then the automatic ones of content.xml.
    TKvIOOStyles& Styles() { return *styles_; }
    const TKvIOOStyles& Styles() const { return *styles_; }
    /// Copies of one cell a document may repeat, over the copy written, before the load fails: a row of
    /// a thousand cells repeated a thousand times makes a million.
    int64_t MaxRepeatedCells() const { return maxRepeated_; }
    void SetMaxRepeatedCells(int64_t v) { maxRepeated_ = v; }

    /// The sheets of the last load, in document order.
    const std::vector<TKvIOOSheetInfo>& Sheets() const { return sheets_; }
    /// The last load read a flat document rather than a package.
    bool IsFlat() const { return flat_; }
    /// The last load met a package whose parts are encrypted.
    bool IsEncrypted() override { return encrypted_; }
    /// The date that the document's day 0 stands for ("1899-12-30" unless it says otherwise).
    const std::string& NullDate() const { return nullDate_; }

    /// Calls the base, clears the summary and the styles, and forgets the current sheet.
    void ApplyEvents() override;
    void LoadFromFile(const std::string& fileName) override;
    void LoadFromStream(TStream& stream) override;
    void BeforeLoad() override;
    bool LoadRecord(int index) override;
    void AfterLoad() override;

    std::vector<std::pair<std::string, std::string>> FileProperties() const override;
    std::string ClassName() const override { return "TKvIOpenOfficeSpreadsheet"; }

    /// True for .ODS, .OTS, .FODS and .FOTS, any case.
    static bool ServesExtension(std::string_view extension);

private:
    struct TLoad;
    void Load(TStream& stream);
    /// Opens the document again at sheet `sheet` for LoadRecord; false when it has no such sheet.
    bool StartSheet(int sheet);

    TKvISummaryInformation summary_;
    std::unique_ptr<TKvIOOStyles> styles_;
    bool flat_ = false;
    const std::string bodyElement_ = "office:body";
    const std::string spreadsheetElement_ = "office:spreadsheet";
    int currentSheet_ = -1;

    int sheetIndex_ = 0;
    int64_t maxRepeated_ = int64_t{1} << 24;
    bool encrypted_ = false;
    std::string version_;
    std::string nullDate_ = "1899-12-30";
    std::vector<TKvIOOSheetInfo> sheets_;

    std::unique_ptr<TLoad> load_;   ///< what the last load read from, kept in record mode
    std::unique_ptr<TStream> file_; ///< the file LoadFromFile opened, in record mode
};

} // namespace kv
