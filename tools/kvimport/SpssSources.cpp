// SPSS system files on the command line: codes or their value labels, user-missing values as null or
// kept, columns named after the variables or their labels, and a preview that shows the dictionary.

#include "CellSources.h"
#include "platform/StringList.h"
#include "sources/KvI2SPSS.h"

#include <charconv>
#include <cmath>

namespace kv::cli {

namespace {

std::vector<OptionSpec> SpssOptions() {
    std::vector<OptionSpec> options = CellRowOptions(false);
    options.push_back({"value-labels", nullptr,
                       "import a value's label instead of the value where it has one",
                       KeepOption("value-labels")});
    options.push_back({"user-missing", "null|keep", "user-missing values as null (the default) or as stored",
                       [](ImportOptions& o, const std::string& v) {
                           o.SourceValues["user-missing"] = OptionChoice<std::string>(
                               "user-missing", v, {{"null", "null"}, {"keep", "keep"}});
                       }});
    options.push_back(
        {"captions", "names|labels", "name the columns after the variables (the default) or their labels",
         [](ImportOptions& o, const std::string& v) {
             o.SourceValues["captions"] =
                 OptionChoice<std::string>("captions", v, {{"names", "names"}, {"labels", "labels"}});
         }});
    return options;
}

// A number as short as it reads back exactly; LO and HI for the ends of a missing range.
std::string NumberText(double v, const TSPSSHeader& header) {
    if (v <= header.Lowest) return "LO";
    if (v >= header.Highest) return "HI";
    if (v == std::trunc(v) && std::fabs(v) < 1e15) return std::to_string(static_cast<int64_t>(v));
    char buffer[32];
    const auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, v);
    return ec == std::errc() ? std::string(buffer, end) : std::string("?");
}

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

class SpssSource : public CellSource {
public:
    SpssSource(const std::string& file, TComponent& root)
        : CellSource(new TKvImportFromSPSS(&root), "SPSS", file) {}

    void ApplyOptions(const ImportOptions& o) override {
        CellSource::ApplyOptions(o);
        auto& spss = static_cast<TKvImportFromSPSS&>(*component_);
        if (o.SourceValue("value-labels")) spss.SetValueLabels(true);
        if (const std::string* v = o.SourceValue("user-missing"))
            spss.SetUserMissing(*v == "keep" ? umKeep : umNull);
        if (const std::string* v = o.SourceValue("captions"))
            spss.SetCaptions(*v == "labels" ? spcLabels : spcNames);
    }

    /// The format, the label (or the name, when labels name the columns), the missing values and the
    /// value labels.
    std::string ColumnNote(int index) const override {
        if (index < 0 || static_cast<size_t>(index) >= variables_.size()) return {};
        const TSPSSVariable& v = variables_[static_cast<size_t>(index)];
        const auto& spss = static_cast<const TKvImportFromSPSS&>(*component_);
        std::string note = v.Print.Text();
        if (spss.Captions() == spcLabels && !v.Label.empty())
            note += ", name " + v.Name;
        else if (!v.Label.empty())
            note += ", label " + Quoted(v.Label);
        std::string missing;
        const auto add = [&missing](const std::string& text) {
            missing += (missing.empty() ? "" : ", ") + text;
        };
        if (v.Missing.HasRange)
            add(NumberText(v.Missing.Low, header_) + " thru " + NumberText(v.Missing.High, header_));
        for (double n : v.Missing.Numbers) add(NumberText(n, header_));
        for (const std::string& t : v.Missing.Texts) add(Quoted(DecodeCodePage(t, codePage_)));
        if (!missing.empty()) note += ", missing " + missing;
        constexpr size_t kShown = 6;
        std::string labels;
        size_t count = 0;
        const auto label = [&](const std::string& value, const std::string& text) {
            if (count++ < kShown) labels += (labels.empty() ? "" : ", ") + value + " " + Quoted(text);
        };
        for (const auto& [value, text] : v.NumberLabels) label(NumberText(value, header_), text);
        for (const auto& [value, text] : v.TextLabels) label(Quoted(DecodeCodePage(value, codePage_)), text);
        if (count > kShown) labels += ", ... (" + std::to_string(count) + " labels)";
        if (!labels.empty()) note += ", labels " + labels;
        return note;
    }

protected:
    void Opened(TSpreadSheetFile& reader) override {
        const auto& file = static_cast<const TSPSSFile&>(reader);
        variables_ = file.Variables();
        header_ = file.Header();
        codePage_ = file.CodePage();
    }

private:
    std::vector<TSPSSVariable> variables_;
    TSPSSHeader header_;
    int codePage_ = 1252;
};

const RegisterSourceKind kSpss({
    "spss",
    {".sav", ".zsav"},
    "SPSS",
    "SPSS data files (.sav, .zsav): one row per case, one column per variable",
    false,
    SpssOptions(),
    [](const ImportOptions&, const std::string& file, const TStringList*,
       TComponent& root) -> std::unique_ptr<SourceSetup> { return std::make_unique<SpssSource>(file, root); },
});

} // namespace

} // namespace kv::cli
