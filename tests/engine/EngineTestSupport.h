#pragma once
// A dataset source over an in-memory table importing into another, as most engine tests need it.

#include "TestSupport.h"
#include "datasets/KvMemDataSet.h"
#include "engine/KvI2DS.h"

#include <string>
#include <vector>

namespace kv::test {

/// A table's rows as "a|b|null" lines.
inline std::vector<std::string> RowLines(const TKvMemDataSet& table) {
    std::vector<std::string> out;
    for (int i = 0; i < table.RowCount(); ++i) {
        std::string line;
        for (const Variant& v : table.Row(i))
            line += (line.empty() ? "" : "|") + (v.IsNull() ? "null" : v.AsString());
        out.push_back(line);
    }
    return out;
}

/// "Processed Added Updated Deleted Skipped Errors".
inline std::string CountsOf(const TKvIStatistic& s) {
    return std::to_string(s.TotalImported) + " " + std::to_string(s.TotalAdded) + " " +
           std::to_string(s.TotalUpdated) + " " + std::to_string(s.TotalDeleted) + " " +
           std::to_string(s.TotalSkipped) + " " + std::to_string(s.TotalErrors);
}

class EngineFixture : public ::testing::Test {
protected:
    EngineFixture() : settings_(InvariantFormatSettings()) {
        source.SetName("Source");
        source.AddFieldDef("ID", ftInteger);
        source.AddFieldDef("NAME", ftString, 40);
        source.AddFieldDef("PRICE", ftString, 20);
        dest.SetName("Dest");
        dest.SetTableName("ITEMS");
        dest.AddFieldDef("ID", ftInteger);
        dest.AddFieldDef("NAME", ftString, 40);
        dest.AddFieldDef("PRICE", ftFloat);
        imp.SetAnimatedStatus(false);
        imp.SetSourceDataset(&source);
        imp.SetDataSet(&dest);
    }

    /// Rows of (ID, NAME, PRICE) for the source.
    void SourceRows(const std::vector<std::vector<Variant>>& rows) {
        for (const auto& r : rows) source.AppendRecord(r);
    }
    /// The destination's rows as "ID|NAME|PRICE" lines.
    std::vector<std::string> DestRows() const { return RowLines(dest); }
    std::string Counts() const { return CountsOf(imp.Statistic()); }

    ScopedFormatSettings settings_;
    TComponent root; // owns the tables and the component, as a form would
    TKvMemDataSet& source = *new TKvMemDataSet(&root);
    TKvMemDataSet& dest = *new TKvMemDataSet(&root);
    TKvImportFromDataSet& imp = *new TKvImportFromDataSet(&root);
};

} // namespace kv::test
