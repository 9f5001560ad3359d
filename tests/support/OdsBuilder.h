#pragma once
// OpenDocument spreadsheets written in memory for the reader's tests and the command line's: sheets of
// rows of cells written as XML, with the document's styles and metadata, as a zip package or as one flat
// document.

#include "support/ZipBuilder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kv::test {

/// A cell element with `attributes` (value type, value, repeat, style) holding `content`.
inline std::string OdsCell(const std::string& attributes, const std::string& content = "") {
    if (content.empty()) return "<table:table-cell " + attributes + "/>";
    return "<table:table-cell " + attributes + ">" + content + "</table:table-cell>";
}
inline std::string OdsFloat(const std::string& value) {
    return OdsCell("office:value-type=\"float\" office:value=\"" + value + "\"",
                   "<text:p>" + value + "</text:p>");
}
/// A text cell whose paragraph holds `paragraph` as XML (spans, text:s...).
inline std::string OdsText(const std::string& paragraph) {
    return OdsCell("office:value-type=\"string\"", "<text:p>" + paragraph + "</text:p>");
}
inline std::string OdsEmpty(int64_t repeat = 1) {
    return repeat == 1
               ? "<table:table-cell/>"
               : "<table:table-cell table:number-columns-repeated=\"" + std::to_string(repeat) + "\"/>";
}
inline std::string OdsRow(const std::string& cells, int64_t repeat = 1) {
    const std::string attributes =
        repeat == 1 ? "" : " table:number-rows-repeated=\"" + std::to_string(repeat) + "\"";
    return "<table:table-row" + attributes + ">" + cells + "</table:table-row>";
}

class OdsBuilder {
public:
    static constexpr const char* kNamespaces =
        " xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\""
        " xmlns:style=\"urn:oasis:names:tc:opendocument:xmlns:style:1.0\""
        " xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\""
        " xmlns:table=\"urn:oasis:names:tc:opendocument:xmlns:table:1.0\""
        " xmlns:fo=\"urn:oasis:names:tc:opendocument:xmlns:xsl-fo-compatible:1.0\""
        " xmlns:dc=\"http://purl.org/dc/elements/1.1/\""
        " xmlns:meta=\"urn:oasis:names:tc:opendocument:xmlns:meta:1.0\" office:version=\"1.3\"";

    /// A sheet of `rows` (table-row elements); `attributes` go into its table element.
    OdsBuilder& Sheet(const std::string& name, const std::string& rows, const std::string& attributes = "") {
        tables_ += "<table:table table:name=\"" + name + "\"" + (attributes.empty() ? "" : " " + attributes) +
                   "><table:table-column table:number-columns-repeated=\"1024\"/>" + rows + "</table:table>";
        return *this;
    }
    /// style:style elements of content.xml (and of the flat document).
    OdsBuilder& AutomaticStyles(std::string xml) { return automatic_ = std::move(xml), *this; }
    /// The elements of office:meta.
    OdsBuilder& Meta(std::string xml) { return meta_ = std::move(xml), *this; }
    /// The manifest's file entries, in place of those of an ordinary package.
    OdsBuilder& ManifestEntries(std::string xml) { return manifest_ = std::move(xml), *this; }
    OdsBuilder& MediaType(std::string type) { return mime_ = std::move(type), *this; }

    std::string Body() const {
        return "<office:body><office:spreadsheet>" + tables_ + "</office:spreadsheet></office:body>";
    }
    std::string Content() const {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<office:document-content" +
               std::string(kNamespaces) + "><office:automatic-styles>" + automatic_ +
               "</office:automatic-styles>" + Body() + "</office:document-content>";
    }
    /// The package: mimetype, manifest, meta.xml, content.xml.
    std::string Build() const {
        const std::string manifest =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<manifest:manifest "
            "xmlns:manifest=\"urn:oasis:names:tc:opendocument:xmlns:manifest:1.0\">" +
            (manifest_.empty()
                 ? "<manifest:file-entry manifest:full-path=\"/\" manifest:media-type=\"" + mime_ +
                       "\"/><manifest:file-entry manifest:full-path=\"content.xml\" "
                       "manifest:media-type=\"text/xml\"/>"
                 : manifest_) +
            "</manifest:manifest>";
        ZipBuilder zip;
        zip.Add("mimetype", mime_, 0);
        zip.Add("META-INF/manifest.xml", manifest);
        if (!meta_.empty())
            zip.Add("meta.xml", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<office:document-meta" +
                                    std::string(kNamespaces) + "><office:meta>" + meta_ +
                                    "</office:meta></office:document-meta>");
        zip.Add("content.xml", Content());
        return zip.Build();
    }
    /// The flat document: everything in one office:document.
    std::string Flat() const {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<office:document" + std::string(kNamespaces) +
               " office:mimetype=\"" + mime_ + "\"><office:meta>" + meta_ +
               "</office:meta><office:automatic-styles>" + automatic_ + "</office:automatic-styles>" +
               Body() + "</office:document>";
    }

private:
    std::string tables_, automatic_, meta_, manifest_;
    std::string mime_ = "application/vnd.oasis.opendocument.spreadsheet";
};

} // namespace kv::test
