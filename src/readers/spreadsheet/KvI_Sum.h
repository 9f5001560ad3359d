#pragma once
// TKvISummaryInformation: the document properties of a workbook (title, author, dates, counts), filled
// from the two property-set streams of a compound file or from name/value pairs of XML metadata, so that
// an application can show them after a load.

#include "platform/Classes.h"
#include "platform/DateUtils.h"
#include "platform/Variant.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

class TKvCompoundFile;

class TKvISummaryInformation : public TPersistent {
public:
    // ---- from the summary property set ----
    const std::string& AppName() const { return appName_; }
    void SetAppName(const std::string& v) { appName_ = v; }
    const std::string& Author() const { return author_; }
    void SetAuthor(const std::string& v) { author_ = v; }
    int CharCount() const { return charCount_; }
    void SetCharCount(int v) { charCount_ = v; }
    const std::string& Comments() const { return comments_; }
    void SetComments(const std::string& v) { comments_ = v; }
    TDateTime Created() const { return created_; }
    void SetCreated(TDateTime v) { created_ = v; }
    int EditTime() const { return editTime_; }
    void SetEditTime(int v) { editTime_ = v; }
    const std::string& Keywords() const { return keywords_; }
    void SetKeywords(const std::string& v) { keywords_ = v; }
    const std::string& LastAuthor() const { return lastAuthor_; }
    void SetLastAuthor(const std::string& v) { lastAuthor_ = v; }
    TDateTime LastPrinted() const { return lastPrinted_; }
    void SetLastPrinted(TDateTime v) { lastPrinted_ = v; }
    TDateTime LastSaved() const { return lastSaved_; }
    void SetLastSaved(TDateTime v) { lastSaved_ = v; }
    int PageCount() const { return pageCount_; }
    void SetPageCount(int v) { pageCount_ = v; }
    const std::string& RevNumber() const { return revNumber_; }
    void SetRevNumber(const std::string& v) { revNumber_ = v; }
    const std::string& Subject() const { return subject_; }
    void SetSubject(const std::string& v) { subject_ = v; }
    const std::string& Template() const { return template_; }
    void SetTemplate(const std::string& v) { template_ = v; }
    const std::string& Title() const { return title_; }
    void SetTitle(const std::string& v) { title_ = v; }
    int WordCount() const { return wordCount_; }
    void SetWordCount(int v) { wordCount_ = v; }

    // ---- from the document summary property set ----
    const std::string& Category() const { return category_; }
    void SetCategory(const std::string& v) { category_ = v; }
    const std::string& PresentationTarget() const { return presentationTarget_; }
    void SetPresentationTarget(const std::string& v) { presentationTarget_ = v; }
    int ByteCount() const { return byteCount_; }
    void SetByteCount(int v) { byteCount_ = v; }
    int LineCount() const { return lineCount_; }
    void SetLineCount(int v) { lineCount_ = v; }
    int ParagraphCount() const { return paragraphCount_; }
    void SetParagraphCount(int v) { paragraphCount_ = v; }
    int SlideCount() const { return slideCount_; }
    void SetSlideCount(int v) { slideCount_ = v; }
    int NoteCount() const { return noteCount_; }
    void SetNoteCount(int v) { noteCount_ = v; }
    int HiddenSlideCount() const { return hiddenSlideCount_; }
    void SetHiddenSlideCount(int v) { hiddenSlideCount_ = v; }
    int MMClipCount() const { return mmClipCount_; }
    void SetMMClipCount(int v) { mmClipCount_ = v; }
    const std::string& Manager() const { return manager_; }
    void SetManager(const std::string& v) { manager_ = v; }
    const std::string& Company() const { return company_; }
    void SetCompany(const std::string& v) { company_ = v; }
    int CharCount2() const { return charCount2_; }
    void SetCharCount2(int v) { charCount2_ = v; }

    /// Empties every string and zeroes every number and date.
    void Clear();
    void Assign(const TPersistent& source) override;

    /// Stores one property of a property set by its ID: of the summary set, or with `isDocumentSet` of
    /// the document summary set (through ParseDocProperty). IDs of neither table are ignored; a value
    /// that is not of the property's kind gives "" or 0.
    void ParseProperty(uint32_t id, const Variant& value, bool isDocumentSet);
    void ParseDocProperty(uint32_t id, const Variant& value);
    /// Stores one name/value pair of XML metadata ("dc:title", "Pages"), names compared exactly.
    void ParseXMLPair(std::string_view name, std::string_view value);

    /// A file time (100-ns intervals since 1601 UTC) as a local date-time, by way of the 2-second DOS
    /// date and time: seconds rounded down to even, 0 before 1980, after 2107 or when a step fails.
    static TDateTime FileTimeToDateTime(uint64_t fileTime);
    /// The minutes field (0 to 59) of a file time taken as a local time; 0 when the conversion fails.
    static int FileTimeToElapsedTime(uint64_t fileTime);
    /// An XML date "2008-03-14T10:05:30Z" read by character positions; a month or day out of range
    /// leaves the time alone.
    static TDateTime XMLDateToDateTime(std::string_view text);

    /// Reads the streams "\x05SummaryInformation" and "\x05DocumentSummaryInformation" of `file` (the
    /// summary set's sections and the document set's first section) into the properties. A damaged
    /// property set fails no load: its error comes back as a warning ("" when both read or are absent).
    std::string ReadPropertySets(const TKvCompoundFile& file);

    std::string ClassName() const override { return "TKvISummaryInformation"; }

private:
    std::string appName_, author_, comments_, keywords_, lastAuthor_, revNumber_, subject_, template_, title_;
    std::string category_, presentationTarget_, manager_, company_;
    int charCount_ = 0, editTime_ = 0, pageCount_ = 0, wordCount_ = 0;
    int byteCount_ = 0, lineCount_ = 0, paragraphCount_ = 0, slideCount_ = 0, noteCount_ = 0;
    int hiddenSlideCount_ = 0, mmClipCount_ = 0, charCount2_ = 0;
    TDateTime created_ = 0, lastPrinted_ = 0, lastSaved_ = 0;
};

} // namespace kv
