#pragma once
// The destination databases the shared suites run on: each kind of TKvDatabase adds one entry here and
// gets both the database suite and the dataset conformance suite.

#include "TestSupport.h"
#include "datasets/DataSet.h"
#include "datasets/KvDatabase.h"
#include "datasets/KvPgDataSet.h"
#include "support/PgCluster.h"

#include <functional>
#include <iostream>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kv::test {

struct DatabaseTarget {
    std::string Name; ///< a test name suffix
    /// The target for OpenDatabase; `dir` is a fresh directory the database may keep its files in.
    std::function<std::string(const TempDir& dir)> Make;
    /// What the datasets of this database do where implementations may differ.
    bool StoresAnyValue = false;
    /// Settings the database takes once open.
    std::function<void(TKvDatabase&)> Configure = nullptr;
};

/// The target's database, opened and configured.
inline TKvDatabase* OpenTarget(const DatabaseTarget& target, const TempDir& dir, TComponent* owner) {
    TKvDatabase* db = OpenDatabase(target.Make(dir), owner);
    if (target.Configure) target.Configure(*db);
    return db;
}

/// Each database, PostgreSQL (a fresh schema of the test run's cluster each time) only where its server
/// programs are installed: otherwise its tests are left out, with one message saying so.
inline std::vector<DatabaseTarget> DatabaseTargets() {
    std::vector<DatabaseTarget> targets = {
        {"SQLiteFile", [](const TempDir& dir) { return dir.File("test.db"); }, true},
        {"SQLiteInMemory", [](const TempDir&) { return std::string(":memory:"); }, true},
    };
    if (PgCluster::Missing().empty()) {
        targets.push_back(
            {"PostgreSQL", [](const TempDir&) { return PgCluster::Get().FreshSchema(); }, false});
        // Lookups by key answered from the key map from the first one on.
        targets.push_back({"PostgreSQLKeyMap", [](const TempDir&) { return PgCluster::Get().FreshSchema(); },
                           false,
                           [](TKvDatabase& db) { dynamic_cast<TKvPgDatabase&>(db).SetKeyMapAfter(0); }});
    } else {
        static const bool told = (std::cerr << PgCluster::Missing() << "\n", true);
        (void)told;
    }
    return targets;
}

/// Appends one row holding `values`, field by field.
inline void Insert(TDataSet& ds, const std::vector<Variant>& values) {
    ds.Append();
    for (size_t i = 0; i < values.size(); ++i) ds.Fields(static_cast<int>(i)).SetValue(values[i]);
    ds.Post();
}

/// A field definition, for short.
inline TFieldDef Field(const std::string& name, TFieldType type, bool required = false) {
    TFieldDef def;
    def.Name = name;
    def.DataType = type;
    def.Required = required;
    return def;
}

/// The kind of value a field type holds ("integer", "text", ...): a database may declare a field of
/// another type of the same kind (a BIGINT read back as an INTEGER), never of another kind.
inline std::string KindOf(TFieldType type) {
    static const std::pair<const char*, std::vector<TFieldType>> kinds[] = {
        {"integer", {ftSmallint, ftInteger, ftWord, ftAutoInc, ftLargeint}},
        {"number", {ftFloat, ftCurrency, ftBCD, ftFMTBcd}},
        {"boolean", {ftBoolean}},
        {"date", {ftDate}},
        {"time", {ftTime}},
        {"date-time", {ftDateTime, ftTimeStamp}},
        {"text", {ftString, ftFixedChar, ftWideString, ftFixedWideChar, ftMemo, ftFmtMemo, ftWideMemo}},
        {"bytes", {ftBytes, ftVarBytes, ftBlob, ftGraphic, ftTypedBinary}}};
    for (const auto& [kind, types] : kinds)
        for (TFieldType member : types)
            if (member == type) return kind;
    return FieldTypeName(type);
}

inline void PrintTo(const DatabaseTarget& target, std::ostream* out) {
    *out << target.Name;
}

inline std::string TargetName(const ::testing::TestParamInfo<DatabaseTarget>& param) {
    return param.param.Name;
}

} // namespace kv::test
