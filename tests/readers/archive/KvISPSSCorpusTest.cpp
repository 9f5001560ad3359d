// System files written by other programs (../shared/corpus/sav): every one loads with valid text, the CSV
// their projects saved matches the cases, and the values their tests assert are read.

#include "readers/archive/KvISPSS.h"

#include "TestSupport.h"
#include "platform/DateUtils.h"
#include "platform/Utf8.h"
#include "support/DataFiles.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kv {
namespace {

const test::TCorpusFolder CorpusFile("sav");

/// A file read case by case, as an import reads it.
struct Sav {
    std::vector<TSPSSVariable> Vars;
    std::vector<std::string> Names; ///< as the columns are named
    std::vector<std::vector<Variant>> Rows;
    int64_t Count = -1;
    std::string Error;

    const Variant& At(size_t row, const std::string& name) const {
        static const Variant none = Variant::Null();
        for (size_t c = 0; c < Names.size(); ++c)
            if (Names[c] == name && row < Rows.size()) return Rows[row][c];
        ADD_FAILURE() << "no cell " << name << " in row " << row;
        return none;
    }
};

Sav Read(const std::string& name, bool labels = false, TSPSSUserMissing missing = umNull) {
    Sav out;
    TSPSSFile f;
    f.SetValueLabels(labels);
    f.SetUserMissing(missing);
    f.OnCellValue = [&](TObject*, int, int row, int column, int32_t, const Variant& value, TAlignment,
                        TKvICellType) {
        if (static_cast<size_t>(row) >= out.Rows.size()) out.Rows.resize(static_cast<size_t>(row) + 1);
        out.Rows[static_cast<size_t>(row)].push_back(value);
        EXPECT_EQ(out.Rows[static_cast<size_t>(row)].size(), static_cast<size_t>(column) + 1);
    };
    out.Error = test::ErrorOf([&] {
        f.LoadFromFile(CorpusFile(name));
        out.Vars = f.Variables();
        for (const TKvIDeclaredField& d : f.DeclaredFields()) out.Names.push_back(d.Name);
        for (int i = 0; f.HasRecord(i); ++i) f.LoadRecord(i);
        out.Count = f.RecordCount();
    });
    return out;
}

TEST(SPSSCorpus, EveryFileLoadsWithValidText) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(CorpusFile(""))) {
        if (!entry.is_regular_file()) continue;
        const std::string name = entry.path().filename().string();
        SCOPED_TRACE(name);
        ++files;
        const Sav sav = Read(name, true, umKeep);
        EXPECT_EQ(sav.Error, "");
        EXPECT_EQ(sav.Count, static_cast<int64_t>(sav.Rows.size()));
        for (const std::string& n : sav.Names) EXPECT_TRUE(IsValidUtf8(n) && !n.empty());
        for (const auto& row : sav.Rows)
            for (const Variant& v : row)
                if (v.IsString()) {
                    EXPECT_TRUE(IsValidUtf8(v.StringRef())) << v.StringRef();
                }
    }
    EXPECT_GE(files, 20);
}

std::vector<std::vector<std::string>> ReadCsv(const std::string& name) {
    std::ifstream in(CorpusFile("expected/" + name), std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (text.starts_with("\xEF\xBB\xBF")) text.erase(0, 3);
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        std::vector<std::string>& row = rows.emplace_back();
        std::istringstream cells(line);
        for (std::string cell; std::getline(cells, cell, ',');) row.push_back(cell);
        if (!line.empty() && line.back() == ',') row.emplace_back();
    }
    return rows;
}

/// Whether a CSV cell, as another program wrote it, says what `v` holds.
bool Same(const std::string& cell, const Variant& v) {
    if (v.IsNullOrEmpty() || (v.IsString() && v.StringRef().empty()))
        return cell.empty() || cell == "NaN" || cell == "#NULL!";
    if (v.IsString()) return cell == v.StringRef();
    if (v.VarType() == varDate) {
        const TDateTime t = v.AsDateTime();
        if (t >= 0 && t < 1) { // a time: "h:mm:ss.ffffff"
            int h = 0, m = 0;
            double s = 0;
            return std::sscanf(cell.c_str(), "%d:%d:%lf", &h, &m, &s) == 3 &&
                   std::fabs(h * 3600 + m * 60 + s - t * SecsPerDay) < 1e-3;
        }
        const std::string iso = FormatDateTime(
            t == std::floor(t) && cell.size() == 10 ? "yyyy-mm-dd" : "yyyy-mm-dd\"T\"hh:nn:ss", t);
        return cell.starts_with(iso);
    }
    char* end = nullptr;
    const double number = std::strtod(cell.c_str(), &end);
    return end != cell.c_str() && *end == '\0' &&
           std::fabs(number - v.AsDouble()) <= 1e-9 * std::max(1.0, std::fabs(number));
}

TEST(SPSSCorpus, CsvTwinsMatch) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const struct {
        const char* File;
        const char* Csv;
        bool Labels;
        TSPSSUserMissing Missing;
    } cases[] = {
        {"sample.sav", "sample.csv", false, umNull},
        {"sample.zsav", "sample.csv", false, umNull},
        {"sample_missing.sav", "sample_missing.csv", false, umNull},
        {"sample_missing.sav", "sample_missing_user.csv", false, umKeep},
        {"missing_test.sav", "missing_sav_unformatted.csv", false, umNull},
        {"missing_test.sav", "missing_sav_formatted.csv", false, umKeep},
        {"missing_test.sav", "missing_sav_labeled.csv", true, umKeep},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.File) + " / " + c.Csv);
        const Sav sav = Read(c.File, c.Labels, c.Missing);
        const auto csv = ReadCsv(c.Csv);
        ASSERT_EQ(csv.size(), sav.Rows.size() + 1);
        EXPECT_EQ(csv[0], sav.Names);
        for (size_t r = 0; r < sav.Rows.size(); ++r)
            for (size_t col = 0; col < sav.Names.size(); ++col)
                EXPECT_TRUE(Same(csv[r + 1].at(col), sav.Rows[r][col]))
                    << "row " << r << " " << sav.Names[col] << ": " << csv[r + 1][col] << " vs "
                    << sav.Rows[r][col].AsString();
    }
}

TEST(SPSSCorpus, ValuesOthersAssert) {
    if (!CorpusFile.Here()) GTEST_SKIP() << "the shared corpus is not here";
    const auto text = [](const Variant& v) { return v.IsNullOrEmpty() ? std::string("null") : v.AsString(); };

    EXPECT_EQ(text(Read("tegulu.sav").At(0, "Q16br9oe_Q24br9oe")), "నేను గతంలో వాడిన బ");
    EXPECT_EQ(Read("hebrews.sav").Names.at(0), "ותק_ב");

    const Sav width = Read("test_width.sav");
    std::string formats;
    for (const TSPSSVariable& v : width.Vars) formats += v.Name + " " + v.Print.Text() + ", ";
    EXPECT_EQ(formats, "ResponseId A18, StartDate A1024, Duration__in_seconds_ F40.2, Finished F1.0, ");

    EXPECT_EQ(Read("variable-label.sav").Vars.at(0).Label, "Gender");
    EXPECT_EQ(text(Read("labelled-num.sav", true).At(0, "VAR00002")), "This is one");
    const Sav str = Read("labelled-str.sav");
    EXPECT_EQ(text(str.At(0, "gender")) + text(str.At(1, "gender")), "MF");
    EXPECT_EQ(text(Read("labelled-str.sav", true).At(1, "gender")), "Female");
    const Sav umlauts = Read("umlauts.sav");
    EXPECT_EQ(umlauts.Vars.at(0).Label, "This is an ä-umlaut");
    EXPECT_EQ(umlauts.Vars.at(0).NumberLabels.at(0).second, "the ä umlaut");

    const Sav dates = Read("datetime.sav");
    EXPECT_EQ(FormatDateTime("yyyy-mm-dd", dates.At(0, "date").AsDateTime()), "2014-09-22");
    EXPECT_EQ(FormatDateTime("yyyy-mm-dd hh:nn:ss", dates.At(1, "date.posix").AsDateTime()),
              "2014-09-23 15:59:20");
    EXPECT_NEAR(dates.At(0, "time").AsDouble() * SecsPerDay, 43870, 0.1); // TIME11.2: 43870.09

    EXPECT_EQ(text(Read("labelled-num-na.sav").At(1, "VAR00002")), "null");
    EXPECT_EQ(text(Read("labelled-num-na.sav", false, umKeep).At(1, "VAR00002")), "9");
    const Sav chars = Read("missing_char.sav"), kept = Read("missing_char.sav", false, umKeep);
    EXPECT_EQ(text(chars.At(0, "mychar")) + text(chars.At(1, "mychar")), "nulla");
    EXPECT_EQ(text(kept.At(0, "mychar")) + text(kept.At(1, "mychar")), "Za");

    const Sav big = Read("BigEndian.sav", true);
    ASSERT_EQ(big.Vars.size(), 6u);
    EXPECT_EQ(big.Rows.size(), 50u); // the header's count, and the data's
    for (size_t r = 0; r < big.Rows.size(); ++r)
        EXPECT_EQ(big.Rows[r][0].AsInt64(), static_cast<int64_t>(r + 1));
    EXPECT_EQ(text(big.At(0, "SEX")) + " " + text(big.At(0, "GROUP")), "MALE Control");
    EXPECT_EQ(big.Rows[0][5].AsDouble(), 53.321541454892696);

    // Missing values of each kind: none, 1, 2 and 3 values, a range, a range and a value.
    const Sav missing = Read("MissingValues.sav");
    const char* columns[] = {"0 1 2 3 4 5 6 7",
                             "0 null 2 3 4 5 6 7",
                             "0 null null 3 4 5 6 7",
                             "0 null null null 4 5 6 7",
                             "0 null null null null null 6 7",
                             "0 null null null null null 6 null"};
    for (size_t c = 0; c < 6; ++c) {
        std::string column;
        for (const auto& row : missing.Rows) column += (column.empty() ? "" : " ") + text(row[c]);
        EXPECT_EQ(column, columns[c]) << missing.Names[c];
    }

    EXPECT_EQ(Read("sample_large.sav").Rows.size(), 485u);
    const Sav ordered = Read("ordered_category.sav");
    std::string labels;
    for (const auto& [value, label] : ordered.Vars.at(0).NumberLabels) labels += label + " ";
    EXPECT_EQ(labels, "high low medium ");
}

} // namespace
} // namespace kv
