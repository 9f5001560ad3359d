// What every TDataSet implementation does alike, run on the memory table and on a table of each
// database in DatabaseTargets. Where implementations may differ, the factory says which way its datasets
// go and the test holds them to it.

#include "DatabaseTargets.h"
#include "datasets/KvDatabase.h"
#include "datasets/KvMemDataSet.h"
#include "platform/SysUtils.h"

#include <cstdint>
#include <memory>

namespace kv {
namespace {

using test::ErrorOf;
using test::Field;
using test::Insert;

// Makes the tables of one implementation.
class TableFactory {
public:
    virtual ~TableFactory() = default;
    /// An empty table with these fields, open.
    virtual TDataSet& Make(const std::vector<TFieldDef>& fields) = 0;
    /// The table made last as it was stored, opened afresh.
    virtual TDataSet& Reopen() = 0;
    /// Any value goes into any field, whatever its type (TField::SetValueAsItStands keeps it).
    virtual bool StoresAnyValue() const = 0;
};

class MemTables : public TableFactory {
public:
    TDataSet& Make(const std::vector<TFieldDef>& fields) override {
        table_.FieldDefs() = fields;
        table_.Open();
        return table_;
    }
    TDataSet& Reopen() override {
        table_.Close(); // the rows outlive Close
        table_.Open();
        return table_;
    }
    bool StoresAnyValue() const override { return false; }

private:
    TKvMemDataSet table_;
};

// A table made by the database's CreateTable, read back through its OpenDataSet.
class DatabaseTables : public TableFactory {
public:
    explicit DatabaseTables(const test::DatabaseTarget& target)
        : db_(*OpenTarget(target, dir_, &root_)), storesAnyValue_(target.StoresAnyValue) {}
    TDataSet& Make(const std::vector<TFieldDef>& fields) override {
        db_.CreateTable(table_, fields);
        return *db_.OpenDataSet(table_, &root_);
    }
    TDataSet& Reopen() override { return *db_.OpenDataSet(table_, &root_); }
    bool StoresAnyValue() const override { return storesAnyValue_; }

private:
    test::TempDir dir_;
    TComponent root_;
    TKvDatabase& db_;
    bool storesAnyValue_;
    const std::string table_ = "conformance \"table\"";
};

// The memory table first, marked by a target without Make, then each database.
std::vector<test::DatabaseTarget> Implementations() {
    std::vector<test::DatabaseTarget> all = test::DatabaseTargets();
    all.insert(all.begin(), {"Memory", nullptr});
    return all;
}

// Identical values, an integer being the same number whether it is held in 32 or 64 bits.
bool SameValue(const Variant& a, const Variant& b) {
    const auto integer = [](const Variant& v) {
        return v.VarType() == varInteger || v.VarType() == varInt64;
    };
    return integer(a) && integer(b) ? a.AsInt64() == b.AsInt64() : a.Identical(b);
}

std::unique_ptr<TableFactory> Factory(const test::DatabaseTarget& target) {
    if (!target.Make) return std::make_unique<MemTables>();
    return std::make_unique<DatabaseTables>(target);
}

class DataSetConformance : public ::testing::TestWithParam<test::DatabaseTarget> {
protected:
    DataSetConformance() : factory(Factory(GetParam())) {}

    // ID, Name and Age, one row per name (ages 20, 21, ...; IDs 1, 2, ...).
    TDataSet& People(const std::vector<std::string>& names) {
        TFieldDef name = Field("Name", ftString);
        name.Size = 20;
        TDataSet& ds = factory->Make({Field("ID", ftInteger), name, Field("Age", ftInteger)});
        for (size_t i = 0; i < names.size(); ++i)
            Insert(ds, {static_cast<int>(i) + 1, names[i], static_cast<int>(i) + 20});
        ds.First();
        return ds;
    }
    // The rows from the cursor on, the values of each joined by "|", rows by ",".
    static std::string Walk(TDataSet& ds) {
        std::string rows;
        for (; !ds.Eof(); ds.Next()) {
            if (!rows.empty()) rows += ",";
            for (int i = 0; i < ds.FieldCount(); ++i) rows += (i ? "|" : "") + ds.Fields(i).AsString();
        }
        return rows;
    }
    static std::string Names(TDataSet& ds) {
        std::string names;
        for (ds.First(); !ds.Eof(); ds.Next()) names += (names.empty() ? "" : ",") + ds.Fields(1).AsString();
        return names;
    }

    std::unique_ptr<TableFactory> factory;
};

TEST_P(DataSetConformance, FirstAndNextWalkTheRowsInTheOrderTheyWereAdded) {
    TDataSet& ds = factory->Make({Field("N", ftInteger)});
    EXPECT_TRUE(ds.Eof() && ds.Bof() && ds.IsEmpty());
    ds.Next(); // at the end: stays there
    EXPECT_TRUE(ds.Eof());
    EXPECT_TRUE(ds.Fields(0).IsNull()); // no current record
    for (int n : {30, 10, 20}) Insert(ds, {n});
    EXPECT_EQ(ds.RecordCount(), 3);
    ds.First();
    EXPECT_TRUE(ds.Bof());
    EXPECT_EQ(Walk(ds), "30,10,20");
    EXPECT_EQ(ds.Fields(0).AsString(), "20"); // still on the last row
    EXPECT_EQ(Walk(factory->Reopen()), "30,10,20");
}

TEST_P(DataSetConformance, AppendPostsANewRowAndCancelDropsIt) {
    TDataSet& ds = People({"Ada"});
    TField& name = ds.FieldByName("name"); // names ignore case
    ds.Append();
    EXPECT_EQ(ds.State(), dsInsert);
    EXPECT_TRUE(name.IsNull());
    name.SetValue("Bob");
    ds.Post();
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(name.AsString(), "Bob"); // on the new row
    EXPECT_TRUE(ds.FieldByName("Age").IsNull());
    EXPECT_EQ(ds.RecordCount(), 2);

    ds.Append();
    name.SetValue("Cy");
    ds.Cancel();
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(name.AsString(), "Bob"); // back where it was
    EXPECT_EQ(ds.RecordCount(), 2);

    ds.Append();
    name.SetValue("Di");
    ds.First(); // moving posts the edit first
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(Names(factory->Reopen()), "Ada,Bob,Di");
}

TEST_P(DataSetConformance, EditWritesTheAssignedFieldsOnly) {
    TDataSet& ds = People({"Ada", "Bob"});
    ds.Next();
    ds.Edit();
    EXPECT_EQ(ds.State(), dsEdit);
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Bob"); // not assigned yet: the record's value
    ds.FieldByName("Name").SetValue("Bobby");
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Bobby");
    ds.Cancel();
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Bob");

    ds.Edit();
    ds.FieldByName("Age").SetValue(40);
    ds.FieldByName("Name").Clear();
    ds.Post();
    EXPECT_EQ(ds.FieldByName("Age").AsString(), "40"); // still on the edited row
    EXPECT_EQ(Walk(factory->Reopen()), "1|Ada|20,2||40");

    auto other = Factory(GetParam());
    TDataSet& none = other->Make({Field("N", ftInteger)});
    none.Edit(); // nothing to edit: a new record
    EXPECT_EQ(none.State(), dsInsert);
    none.Cancel();
}

TEST_P(DataSetConformance, DeleteMovesToTheNextRowOrBackFromTheEnd) {
    TDataSet& ds = People({"Ada", "Bob", "Cy"});
    ds.Next();
    ds.Delete();
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Cy");
    EXPECT_FALSE(ds.Eof());
    ds.Delete(); // the last row: back to the one before
    EXPECT_EQ(ds.FieldByName("Name").AsString(), "Ada");
    EXPECT_TRUE(ds.Eof());
    EXPECT_EQ(ds.RecordCount(), 1);
    EXPECT_EQ(Names(factory->Reopen()), "Ada");

    ds.Delete();
    EXPECT_TRUE(ds.IsEmpty());
    EXPECT_TRUE(ds.Eof());
    EXPECT_EQ(ds.RecordCount(), 0);
    EXPECT_EQ(ErrorOf([&] { ds.Delete(); }), "Cannot perform this operation on an empty dataset");
    ds.Append();
    ds.Delete(); // a new record is only dropped
    EXPECT_EQ(ds.State(), dsBrowse);
    EXPECT_EQ(factory->Reopen().RecordCount(), 0);
}

TEST_P(DataSetConformance, LocateFindsTheFirstMatchAndStaysPutOtherwise) {
    TDataSet& ds = factory->Make({Field("ID", ftInteger), Field("Country", ftString),
                                  Field("Code", ftInteger), Field("Name", ftString), Field("Day", ftDate)});
    const Variant day = Variant::FromDateTime(EncodeDate(2024, 1, 2)), null = Variant::Null();
    const std::vector<Variant> rows[] = {{1, "FR", 1, "Ada", day},    {2, "DE", 1, "bob", null},
                                         {3, "DE", 2, "Bobby", null}, {4, "DE", null, "École", null},
                                         {5, null, 2, "Bob", null},   {6, "DE", 2, "Bob", null}};
    for (const auto& row : rows) Insert(ds, row);
    const auto keys = [](Variant a, Variant b) { return Variant::FromArray({a, b}); };
    const struct {
        std::string fields;
        Variant values;
        TLocateOptions options;
        int expectedId; // 0: not found
    } cases[] = {{"Name", "Bob", {}, 5},
                 {"Name", "BOB", {}, 0},  // case counts
                 {"Name", "Bo", {}, 0},   // whole values
                 {"Name", "Bob ", {}, 0}, // blanks count
                 {"Name", "bob", {}, 2},
                 {"Name", "BOB", {loCaseInsensitive}, 2},
                 {"Name", "école", {loCaseInsensitive}, 4},
                 {"Name", "Bo", {loPartialKey}, 3},
                 {"Name", "bo", {loPartialKey, loCaseInsensitive}, 2},
                 {"Name", "Éc", {loPartialKey}, 4},
                 {"name ; COUNTRY", keys("Bob", "DE"), {}, 6},
                 {"Country;Code", keys("DE", 2), {}, 3},
                 {"Code;Country", keys("2", "DE"), {}, 3}, // a key is read as its field's type
                 {"Country;Name", keys("de", "BOBBY"), {loCaseInsensitive}, 3},
                 {"Country;Code", keys("DE", null), {}, 4},
                 {"Country", null, {}, 5},
                 {"Country;Code", Variant::FromArray({"FR"}), {}, 0}, // a missing value is Null
                 {"Code", "x", {}, 0},
                 {"Code", 3, {}, 0},
                 {"Day", day, {}, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fields + " -> " + IntToStr(c.expectedId));
        ds.First();
        ds.Next(); // on row 2, where a failed Locate leaves the cursor
        EXPECT_EQ(ds.Locate(c.fields, c.values, c.options), c.expectedId != 0);
        const int at = c.expectedId ? c.expectedId : 2;
        EXPECT_EQ(ds.FieldByName("ID").Value().AsInteger(), at);
        ds.Next(); // walking goes on from there
        EXPECT_EQ(ds.Eof() ? 7 : ds.FieldByName("ID").Value().AsInteger(), at + 1);
    }
    EXPECT_EQ(ErrorOf([&] { ds.Locate("Nope", 1, {}); }), "Field 'Nope' not found");
    ds.Append();
    ds.Fields(0).SetValue(7);
    EXPECT_TRUE(ds.Locate("ID", 7, {})); // an edit is posted first
    EXPECT_EQ(ds.RecordCount(), 7);
}

TEST_P(DataSetConformance, WritesAreRefusedOutsideEditModeAndToReadOnlyFields) {
    TDataSet& ds = People({"Ada"});
    TField& name = ds.FieldByName("Name");
    EXPECT_EQ(ErrorOf([&] { name.Clear(); }), "Dataset not in edit or insert mode");
    ds.SetName("People"); // errors then name the dataset
    EXPECT_EQ(ErrorOf([&] { name.SetValue("x"); }), "People: Dataset not in edit or insert mode");
    EXPECT_EQ(name.AsString(), "Ada");
    EXPECT_EQ(ds.FindField("Nope"), nullptr);
    EXPECT_THROW(ds.Fields(3), EListError);

    name.SetReadOnly(true);
    ds.Edit();
    EXPECT_EQ(ErrorOf([&] { name.SetValue("x"); }), "People: Field 'Name' cannot be modified");
    ds.FieldByName("Age").SetValue(30);
    ds.Post();
    ds.Append();
    EXPECT_THROW(name.SetValue("y"), EDatabaseError);
    ds.Fields(0).SetValue(2);
    ds.Post();
    EXPECT_EQ(Walk(factory->Reopen()), "1|Ada|30,2||");

    ds.Close();
    EXPECT_EQ(ErrorOf([&] { ds.First(); }), "Cannot perform this operation on a closed dataset");
    EXPECT_THROW(ds.Append(), EDatabaseError);
}

TEST_P(DataSetConformance, RequiredFieldsRefuseNullAndTheNextRowStillGoesIn) {
    TDataSet& ds = factory->Make({Field("Code", ftInteger), Field("Name", ftString, true)});
    ds.Append();
    ds.Fields(0).SetValue(1);
    EXPECT_THROW(ds.Post(), EDatabaseError);
    EXPECT_EQ(ds.State(), dsInsert); // still being edited until the caller drops it
    ds.Cancel();
    Insert(ds, {2, "b"});
    ds.Edit(); // an edit that leaves the required field alone is fine
    ds.Fields(0).SetValue(3);
    ds.Post();
    ds.Edit();
    ds.Fields(1).Clear();
    EXPECT_THROW(ds.Post(), EDatabaseError);
    ds.Cancel();
    EXPECT_EQ(Walk(factory->Reopen()), "3|b");
}

TEST_P(DataSetConformance, AutoIncFieldsNumberTheRowsThatComeWithoutOne) {
    // Required, yet a row without a number goes in.
    TDataSet& ds = factory->Make({Field("ID", ftAutoInc, true), Field("Name", ftString)});
    Insert(ds, {Variant::Null(), "a"});
    EXPECT_EQ(ds.Fields(0).Value().AsInteger(), 1); // the cursor is on the new row, with its number
    Insert(ds, {Variant::Null(), "b"});
    Insert(ds, {10, "c"});
    Insert(ds, {Variant::Null(), "d"}); // numbering goes on after the largest
    EXPECT_EQ(ds.Fields(0).Value().AsInteger(), 11);
    EXPECT_EQ(Walk(factory->Reopen()), "1|a,2|b,10|c,11|d");
}

TEST_P(DataSetConformance, ValuesReadBackAsTheyWereWritten) {
    const TDateTime stamp = EncodeDateTime(2024, 2, 29, 13, 45, 10, 250);
    const struct {
        TFieldType type;
        std::vector<Variant> values;
    } columns[] = {
        {ftLargeint, {Variant::FromInt(INT64_MAX), Variant::FromInt(INT64_MIN), Variant(-7), Variant(0)}},
        {ftInteger, {Variant(5000000000LL), Variant(-2147483648LL), Variant(42), Variant(-1)}},
        {ftFloat, {Variant(2.5), Variant(0.1), Variant(-1e-300), Variant(1.7976931348623157e308)}},
        {ftBoolean, {Variant(true), Variant(false), Variant(true), Variant(false)}},
        {ftDate,
         {Variant::FromDateTime(EncodeDate(2024, 2, 29)), Variant::FromDateTime(EncodeDate(1899, 12, 30)),
          Variant::FromDateTime(EncodeDate(1753, 1, 1)), Variant::FromDateTime(EncodeDate(9999, 12, 31))}},
        {ftTime,
         {Variant::FromDateTime(EncodeTime(13, 45, 10, 0)), Variant::FromDateTime(EncodeTime(0, 0, 0, 0)),
          Variant::FromDateTime(EncodeTime(23, 59, 59, 999)), Variant::FromDateTime(EncodeTime(8, 0, 0, 5))}},
        {ftDateTime,
         {Variant::FromDateTime(stamp), Variant::FromDateTime(EncodeDateTime(1900, 1, 1, 0, 0, 0, 1)),
          Variant::FromDateTime(EncodeDateTime(2038, 1, 19, 3, 14, 8, 0)),
          Variant::FromDateTime(EncodeDate(2000, 1, 1))}},
        {ftString,
         {Variant("Zoë 東京 🙂"), Variant(""), Variant("'quoted' \"text\"; --"), Variant(" x\n\ty ")}},
        {ftBlob,
         {Variant::FromBytes(std::string("\x00\x01\xff", 3)), Variant::FromBytes(""),
          Variant::FromBytes(std::string(70000, '\x80')), Variant::FromBytes("text")}},
    };
    std::vector<TFieldDef> defs;
    for (const auto& column : columns) defs.push_back(Field(FieldTypeName(column.type), column.type));
    TDataSet& ds = factory->Make(defs);
    const size_t rows = columns[0].values.size();
    for (size_t r = 0; r < rows; ++r) {
        ds.Append();
        for (size_t c = 0; c < std::size(columns); ++c)
            ds.Fields(static_cast<int>(c)).SetValue(columns[c].values[r]);
        ds.Post();
    }
    Insert(ds, {}); // all Null

    // What the dataset that wrote the rows reads, then what a fresh one reads from the storage.
    for (TDataSet* read : {&ds, &factory->Reopen()}) {
        read->First();
        for (size_t r = 0; r <= rows; ++r, read->Next()) {
            ASSERT_FALSE(read->Eof());
            for (size_t c = 0; c < std::size(columns); ++c) {
                const TField& f = read->Fields(static_cast<int>(c));
                const Variant expected = r < rows ? columns[c].values[r] : Variant::Null();
                EXPECT_TRUE(SameValue(f.Value(), expected)) << f.FieldName() << " row " << r << ": "
                                                            << f.AsString() << " for " << expected.AsString();
            }
        }
        EXPECT_TRUE(read->Eof());
        for (size_t c = 0; c < std::size(columns); ++c) {
            const TFieldType type = read->Fields(static_cast<int>(c)).DataType();
            EXPECT_EQ(test::KindOf(type), test::KindOf(columns[c].type)) << FieldTypeName(type);
        }
    }
}

TEST_P(DataSetConformance, TextThatFitsNoFieldTypeIsKeptOnlyWhereAnyValueGoes) {
    TDataSet& ds = factory->Make({Field("N", ftInteger), Field("D", ftDate)});
    EXPECT_EQ(ds.StoresAnyValue(), factory->StoresAnyValue());
    ds.Append();
    for (int i = 0; i < 2; ++i) {
        const std::string error = ErrorOf([&] { ds.Fields(i).SetValueAsItStands("n/a"); });
        if (factory->StoresAnyValue())
            EXPECT_EQ(error, "");
        else
            EXPECT_NE(error, "");
    }
    ds.Post();
    EXPECT_EQ(Walk(factory->Reopen()), factory->StoresAnyValue() ? "n/a|n/a" : "|");
}

INSTANTIATE_TEST_SUITE_P(Implementations, DataSetConformance, ::testing::ValuesIn(Implementations()),
                         test::TargetName);

} // namespace
} // namespace kv
