// What an OpenDocument walk takes in besides the sheets: the styles and the document's metadata.

#include "readers/archive/KvIOOInternal.h"

#include "platform/SysUtils.h"

#include <cmath>

namespace kv::oo {

namespace {

TAlignment AlignmentOf(std::string_view align, TAlignment fallback) {
    if (align == "end" || align == "right") return taRightJustify;
    if (align == "center") return taCenter;
    if (align == "start" || align == "left" || align == "justify") return taLeftJustify;
    return fallback;
}

/// "#rrggbb" as blue, green and red bytes from high to low; -1 for anything else.
int32_t ColorOf(std::string_view text) {
    if (text.size() != 7 || text[0] != '#') return -1;
    int32_t rgb = 0;
    for (size_t i = 1; i < 7; ++i) {
        const char c = text[i];
        const int v = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
        if (v < 0) return -1;
        rgb = rgb * 16 + v;
    }
    return (rgb >> 16 & 0xFF) | (rgb & 0xFF00) | (rgb & 0xFF) << 16;
}

} // namespace

void TDocumentReader::ReadStyles() {
    const int64_t depth = scanner_.Depth();
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < depth) return;
        if (scanner_.Kind() != xtkStartTag) continue;
        const std::string_view element = scanner_.Name();
        if (scanner_.Depth() == depth + 1 && (element == "style:style" || element == "text:list-style"))
            ReadStyle(element, scanner_.Attributes());
        else
            SkipElement();
    }
}

void TDocumentReader::ReadStyle(std::string_view element, std::string_view attributes) {
    std::string family = element == "text:list-style" ? "list" : "", name, parent;
    ForEachAttribute(attributes, [&](std::string_view n, std::string_view v) {
        if (n == "style:family")
            family.assign(v);
        else if (n == "style:name")
            name.assign(v);
        else if (n == "style:parent-style-name")
            parent.assign(v);
    });
    DecodeXMLEntities(name);
    DecodeXMLEntities(parent);
    std::unique_ptr<TKvIOOStyle> made;
    if (family == "list")
        made = std::make_unique<TKvIOOStyleNumList>();
    else if (family == "graphic")
        made = std::make_unique<TKvIOOStyleGraphic>();
    else if (family == "table-cell" || family == "paragraph" || family == "text")
        made = std::make_unique<TKvIOOStyleText>();
    else
        made = std::make_unique<TKvIOOStyle>();
    made->SetStyleFamily(family);
    made->SetStyleName(name);
    made->SetStyleParent(sinks_.Styles->FindByStyleName(parent));
    auto* text = dynamic_cast<TKvIOOStyleText*>(made.get());
    auto* list = dynamic_cast<TKvIOOStyleNumList*>(made.get());
    // A cell style aligns as its parent does unless it says otherwise.
    TAlignment align = taLeftJustify;
    if (const auto it = sinks_.Index->Cells.find(parent); it != sinks_.Index->Cells.end())
        align = sinks_.Index->Align[static_cast<size_t>(it->second)];
    if (auto* p = dynamic_cast<const TKvIOOStyleText*>(made->StyleParent()); p && text) {
        text->SetTextFont(p->TextFont());
        text->SetColor(p->Color());
    }
    bool hidden = false;
    const int64_t depth = scanner_.Depth();
    bool levelSeen = false;
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < depth) break;
        if (scanner_.Kind() != xtkStartTag) continue;
        const std::string_view child = scanner_.Name();
        ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
            if (child == "style:table-properties" && n == "table:display") {
                hidden = v == "false";
            } else if (child == "style:paragraph-properties" && n == "fo:text-align") {
                align = AlignmentOf(v, align);
            } else if (text && child == "style:table-cell-properties" && n == "fo:background-color") {
                if (const int32_t color = ColorOf(v); color >= 0) text->SetColor(color);
            } else if (text && child == "style:text-properties") {
                TKvIOOFont& font = text->TextFont();
                if (n == "style:font-name")
                    font.Name.assign(v);
                else if (n == "fo:font-size" && v.ends_with("pt"))
                    ParseNumber(v.substr(0, v.size() - 2), font.Size);
                else if (n == "fo:font-weight")
                    font.Bold = v == "bold";
                else if (n == "fo:font-style")
                    font.Italic = v == "italic";
                else if (n == "style:text-underline-style")
                    font.Underline = v != "none";
            } else if (list && !levelSeen && child.starts_with("text:list-level-style")) {
                if (n == "style:num-prefix")
                    list->SetNumPrefix(std::string(v));
                else if (n == "style:num-suffix")
                    list->SetNumSufix(std::string(v));
                else if (n == "style:num-format")
                    list->SetNumFormat(std::string(v));
                else if (n == "text:bullet-char")
                    list->SetBulletChar(std::string(v));
            }
        });
        if (child.starts_with("text:list-level-style")) levelSeen = true;
    }
    if (text) text->SetAlignment(align);
    if (family == "table" && hidden) sinks_.Index->HiddenTables.insert(name);
    sinks_.Styles->Add(std::move(made));
    const int index = sinks_.Styles->Count() - 1;
    sinks_.Index->Align.push_back(align);
    // A later style of the same name (content.xml's own after styles.xml's) is the one its cells mean.
    if (family == "table-cell") sinks_.Index->Cells[name] = index;
}

void TDocumentReader::ReadMeta() {
    // Small texts, one element each; none is allowed to grow past this.
    constexpr size_t kMaxMeta = 65536;
    TKvISummaryInformation& summary = *sinks_.Summary;
    const int64_t depth = scanner_.Depth();
    std::string value, keywords;
    bool initialCreator = false;
    while (scanner_.Next()) {
        if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < depth) break;
        if (scanner_.Kind() != xtkStartTag || scanner_.Depth() != depth + 1) continue;
        const std::string element(scanner_.Name());
        ForEachAttribute(scanner_.Attributes(), [&](std::string_view n, std::string_view v) {
            std::string text(v);
            DecodeXMLEntities(text);
            if (element == "meta:document-statistic") {
                const int count = StrToIntDef(text, 0);
                if (n == "meta:page-count") summary.SetPageCount(count);
                if (n == "meta:word-count") summary.SetWordCount(count);
                if (n == "meta:character-count") summary.SetCharCount(count);
                if (n == "meta:paragraph-count") summary.SetParagraphCount(count);
            } else if (element == "meta:template" && (n == "xlink:title" || n == "xlink:href")) {
                if (summary.Template().empty() || n == "xlink:title") summary.SetTemplate(text);
            } else if (element == "meta:user-defined" && n == "meta:name") {
                value = text; // the property's name, until its value comes
            }
        });
        const std::string name = element == "meta:user-defined" ? value : std::string();
        value.clear();
        const int64_t at = scanner_.Depth();
        while (scanner_.Next()) {
            if (scanner_.Kind() == xtkEndTag && scanner_.Depth() < at) break;
            if (scanner_.Kind() == xtkText && value.size() < kMaxMeta)
                value.append(scanner_.Text().substr(0, kMaxMeta - value.size()));
        }
        DecodeXMLEntities(value);
        const std::string text = Trim(value);
        if (element == "meta:generator")
            summary.SetAppName(text);
        else if (element == "dc:title" || element == "dc:subject" || element == "dc:description")
            summary.ParseXMLPair(element, text);
        else if (element == "meta:initial-creator")
            summary.SetAuthor(text), initialCreator = true;
        else if (element == "dc:creator") {
            // The document's last author; the first is its initial creator, when it names one.
            summary.SetLastAuthor(text);
            if (!initialCreator) summary.SetAuthor(text);
        } else if (element == "meta:creation-date")
            summary.SetCreated(TKvISummaryInformation::XMLDateToDateTime(text));
        else if (element == "dc:date")
            summary.SetLastSaved(TKvISummaryInformation::XMLDateToDateTime(text));
        else if (element == "meta:print-date")
            summary.SetLastPrinted(TKvISummaryInformation::XMLDateToDateTime(text));
        else if (element == "meta:editing-cycles")
            summary.SetRevNumber(text);
        else if (element == "meta:editing-duration") {
            double seconds = 0;
            if (ParseDuration(text, seconds) && seconds >= 0 && seconds < 2e10)
                summary.SetEditTime(static_cast<int>(seconds / 60));
        } else if (element == "meta:keyword" && !text.empty())
            keywords += (keywords.empty() ? "" : ", ") + text;
        else if (name == "Company")
            summary.SetCompany(text);
        else if (name == "Manager")
            summary.SetManager(text);
        else if (name == "Category")
            summary.SetCategory(text);
        value.clear();
    }
    if (!keywords.empty()) summary.SetKeywords(keywords.substr(0, kMaxMeta));
}

} // namespace kv::oo
