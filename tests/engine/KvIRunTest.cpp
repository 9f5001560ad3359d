// The run: modes and key lookup, events at their moments, transactions, the error rule and the statistic.

#include "EngineTestSupport.h"
#include "engine/Impcnst.h"
#include "platform/FrontEnd.h"

namespace kv {
namespace {

using Rows = std::vector<std::vector<Variant>>;

class Run : public test::EngineFixture {};

TEST_F(Run, AppendsWithAnAutomaticMappingThatIsNotKept) {
    SourceRows({{1, "Apple", "1.5"}, {2, "Pear", "2,000.25"}});
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irExecuted);
    EXPECT_EQ(imp.LastMessage(), "The data import process has completed successfully.");
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"1|Apple|1.5", "2|Pear|2000.25"}));
    EXPECT_EQ(Counts(), "2 2 0 0 0 0");
    EXPECT_TRUE(imp.Mappings().Empty());
    EXPECT_EQ(imp.Columns().Count(), 3);
}

TEST_F(Run, ModesDecideTheActionByTheKey) {
    struct Case {
        TImportMode mode;
        std::vector<std::string> rows;
        const char* counts;
    };
    // The destination holds 1 and 2; the source brings 2 and 3.
    const Case cases[] = {
        {imAppend, {"1|old1|1", "2|old2|2", "2|new2|20", "3|new3|30"}, "2 2 0 0 0 0"},
        {imUpdate, {"1|old1|1", "2|new2|20"}, "2 0 1 0 0 0"},
        {imAppendUpdate, {"1|old1|1", "2|new2|20", "3|new3|30"}, "2 1 1 0 0 0"},
        {imDelete, {"1|old1|1"}, "2 0 0 1 0 0"},
        {imCopy, {"2|new2|20", "3|new3|30"}, "2 2 0 2 0 0"},
        {imAppendNewOnly, {"1|old1|1", "2|old2|2", "3|new3|30"}, "2 1 0 0 0 0"},
    };
    for (const Case& c : cases) {
        dest.EmptyTable();
        dest.AppendRecord({1, "old1", 1.0});
        dest.AppendRecord({2, "old2", 2.0});
        source.EmptyTable();
        SourceRows({{2, "new2", "20"}, {3, "new3", "30"}});
        imp.SetMode(c.mode);
        imp.SetDatasetKeys("ID");
        imp.Execute();
        EXPECT_EQ(imp.Statistic().Result, irExecuted) << c.mode;
        EXPECT_EQ(DestRows(), c.rows) << c.mode;
        EXPECT_EQ(Counts(), c.counts) << c.mode;
    }
}

TEST_F(Run, KeyedModeWithoutKeysAndMissingPropertiesFailBeforeTheRun) {
    imp.SetMode(imUpdate);
    EXPECT_EQ(test::ErrorOf([&] { imp.Execute(); }), "Property  wasn't specified.");
    EXPECT_EQ(imp.Statistic().Result, irUnknown);
    TKvImportFromDataSet bare;
    // The base check wins.
    EXPECT_EQ(test::ErrorOf([&] { bare.Execute(); }), "Property DataSet wasn't specified.");
    bare.SetDataSet(&dest);
    EXPECT_THROW(bare.Execute(), Exception);
}

TEST_F(Run, CommitPointsFollowTheCommitCount) {
    Rows rows;
    for (int i = 1; i <= 700; ++i) rows.push_back({i, "n", "1"});
    SourceRows(rows);
    std::vector<std::string> log;
    imp.OnStartTransaction = [&](TObject*) {
        log.push_back("start@" + std::to_string(imp.Statistic().TotalImported));
    };
    imp.OnFinishTransaction = [&](TObject*) {
        log.push_back("finish@" + std::to_string(imp.Statistic().TotalImported));
    };
    imp.Execute();
    // The first start leaves no open transaction behind it: row 300 starts again without finishing.
    EXPECT_EQ(log,
              (std::vector<std::string>{"start@0", "start@300", "finish@600", "start@600", "finish@700"}));
}

TEST_F(Run, EventsAtTheirMoments) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}});
    std::vector<std::string> log;
    auto note = [&](const std::string& s) { log.push_back(s); };
    imp.OnBeforeExecute = [&](TObject*) { note("before-execute"); };
    imp.OnCreateStructure = [&](TObject*, TKvIColumns& c) { note("structure " + std::to_string(c.Count())); };
    imp.OnBeforeRecordEvent = [&](TObject*, const std::string& fields, const Variant& values, bool&) {
        note("record " + fields + " " + values.Item(1).AsString());
    };
    imp.OnGetRowMode = [&](TObject*, const Variant&, TImportMode&) { note("row-mode"); };
    imp.OnBeforeUpdate = [&](TObject*) { note("before-update"); };
    imp.OnBeforeFieldUpdate = [&](TObject*, TField* f, Variant& v, bool& accept) {
        if (f->FieldName() == "NAME") v = Variant(v.AsString() + "!");
        accept = f->FieldName() != "PRICE";
    };
    imp.OnAfterRecordEvent = [&](TObject*, bool&) { note("after-record"); };
    imp.OnAfterExecute = [&](TObject*) { note("after-execute " + imp.LastMessage().substr(0, 8)); };
    imp.Execute();
    EXPECT_EQ(log,
              (std::vector<std::string>{"before-execute", "structure 3", "record ID;NAME;PRICE a", "row-mode",
                                        "before-update", "after-record", "record ID;NAME;PRICE b", "row-mode",
                                        "before-update", "after-record", "after-execute The data"}));
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"1|a!|null", "2|b!|null"}));
}

TEST_F(Run, LocateAndRowModeHandlers) {
    dest.AppendRecord({1, "one", 1.0});
    dest.AppendRecord({2, "two", 2.0});
    SourceRows({{9, "nine", "9"}});
    imp.SetMode(imAppendUpdate);
    imp.SetDatasetKeys("ID");
    // No lookup: the record the cursor stands on (the first, once the table is opened) is updated.
    imp.OnLocateRecord = [](TObject*, const std::string& keys, const Variant& values, bool&,
                            bool& executeLocate) {
        EXPECT_EQ(keys, "ID");
        EXPECT_EQ(values.AsInteger(), 9);
        executeLocate = false;
    };
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"9|nine|9", "2|two|2"}));

    // A row switched to delete removes its located record.
    imp.OnLocateRecord = nullptr;
    imp.SetMode(imAppend);
    source.EmptyTable();
    SourceRows({{2, "x", "0"}, {5, "five", "5"}});
    imp.OnGetRowMode = [](TObject*, const Variant& values, TImportMode& mode) {
        if (values.Item(0).AsInteger() == 2) mode = imDelete;
    };
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"9|nine|9", "5|five|5"}));
    EXPECT_EQ(Counts(), "2 1 0 1 0 0");
}

// A destination whose deletes fail.
class UndeletableDataSet : public TKvMemDataSet {
protected:
    bool InternalDelete() override { throw EDatabaseError("delete refused"); }
};

TEST_F(Run, AFailedDeleteRollsBackTheCounterOfTheRunsMode) {
    UndeletableDataSet target;
    target.AddFieldDef("ID", ftInteger);
    target.AppendRecord({7});
    imp.SetDataSet(&target);
    SourceRows({{7, "x", "0"}});
    imp.SetMode(imAppend);
    imp.SetDatasetKeys("ID");
    imp.OnGetRowMode = [](TObject*, const Variant&, TImportMode& mode) { mode = imDelete; };
    imp.OnErrorEvent = [](TObject*, const std::exception&, bool& abort) { abort = false; };
    imp.Execute();
    const TKvIStatistic& s = imp.Statistic();
    EXPECT_EQ(s.TotalErrors, 1);
    EXPECT_EQ(s.TotalDeleted, 0); // the delete failed before its counter was raised
    EXPECT_EQ(s.TotalAdded, -1);  // yet the run's mode is append, so that counter is the one lowered
    EXPECT_EQ(target.RowCount(), 1);
}

TEST_F(Run, ConditionsAndEmptyRows) {
    SourceRows({{1, "keep", "1"}, {2, "drop", "2"}, {3, "  ", ""}, {4, "keep", "4"}});
    imp.LoadCondition().LoadWhen = "false";
    imp.Execute();
    EXPECT_EQ(imp.Statistic().TotalSkipped, imp.Statistic().TotalImported);
    EXPECT_TRUE(dest.RowCount() == 0);

    imp.LoadCondition().LoadWhen = "";
    imp.LoadCondition().SkipIf = "NAME = 'drop'";
    imp.Mappings().Add("NAME=NAME");
    imp.Mappings().Add("PRICE=PRICE");
    imp.SetOptions(imp.Options().Include(soSkipEmptyRow));
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"null|keep|1", "null|keep|4"}));
    EXPECT_EQ(Counts(), "4 2 0 0 2 0");
}

TEST_F(Run, TotalCountIsBoundedByRowLast) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}});
    imp.SetRowLast(2);
    imp.Execute();
    EXPECT_EQ(imp.Statistic().TotalCount, 2);
    EXPECT_EQ(imp.Statistic().TotalImported, 3); // the dataset source walks to its end regardless
}

TEST_F(Run, AFailedRowIsCountedAndTheHandlerDecidesWhetherTheRunGoesOn) {
    SourceRows({{1, "a", "1"}, {2, "b", "not a number"}, {3, "c", "3"}});
    imp.SetKeepUnconvertedValues(true); // the text reaches the float field, whose write fails
    const std::string failure = "Could not convert variant of type (String) into type (Double)";
    for (bool goOn : {true, false}) {
        dest.EmptyTable();
        std::vector<std::string> errors;
        imp.OnErrorEvent = [&](TObject*, const std::exception& e, bool& abort) {
            EXPECT_TRUE(abort); // AbortOnProblem is the default
            errors.push_back(e.what());
            abort = !goOn;
        };
        imp.Execute();
        if (goOn) {
            EXPECT_EQ(imp.Statistic().Result, irExecuted);
            EXPECT_EQ(DestRows(), (std::vector<std::string>{"1|a|1", "3|c|3"}));
            EXPECT_EQ(Counts(), "3 2 0 0 0 1");
            EXPECT_EQ(errors, std::vector<std::string>{failure});
        } else {
            EXPECT_EQ(imp.Statistic().Result, irFailed);
            EXPECT_EQ(imp.LastMessage(),
                      "An error has occurred during the data import process.\r\n" + failure);
            // Once where the write failed, once more in the row's outer guard.
            EXPECT_EQ(errors, (std::vector<std::string>{failure, failure}));
            EXPECT_EQ(DestRows(), std::vector<std::string>{"1|a|1"});
        }
    }

    // Without a handler the error is swallowed whatever AbortOnProblem says.
    imp.OnErrorEvent = nullptr;
    dest.EmptyTable();
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irExecuted);
    EXPECT_EQ(dest.RowCount(), 2);
}

TEST_F(Run, AfterRecordAbortCancels) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}});
    imp.OnAfterRecordEvent = [&](TObject*, bool& abort) { abort = imp.Statistic().TotalImported == 2; };
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irCanceled);
    EXPECT_EQ(imp.LastMessage(), "The data import process was canceled by the user.");
    EXPECT_EQ(dest.RowCount(), 2);
}

// Fail the Nth write, for every N, in every mode: only that row is lost, every count adds up.
TEST_F(Run, FailingEveryPostInTurn) {
    for (TImportMode mode : {imAppend, imAppendUpdate, imUpdate, imAppendNewOnly}) {
        for (int failAt = 1; failAt <= 5; ++failAt) {
            dest.EmptyTable();
            dest.AppendRecord({2, "old", 2.0});
            dest.AppendRecord({4, "old", 4.0});
            source.EmptyTable();
            SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}, {4, "d", "4"}, {5, "e", "5"}});
            imp.SetMode(mode);
            imp.SetDatasetKeys("ID");
            int posts = 0;
            dest.BeforePost = [&](bool, const std::vector<Variant>&) {
                if (++posts == failAt) throw EDatabaseError("disk full");
            };
            imp.OnErrorEvent = [](TObject*, const std::exception&, bool& abort) { abort = false; };
            imp.Execute();
            dest.BeforePost = nullptr;
            const TKvIStatistic& s = imp.Statistic();
            const int writes = s.TotalAdded + s.TotalUpdated;
            EXPECT_EQ(imp.Statistic().Result, irExecuted);
            EXPECT_EQ(s.TotalErrors, posts >= failAt ? 1 : 0) << mode << " " << failAt;
            EXPECT_EQ(writes + s.TotalErrors, posts) << mode << " " << failAt;
            EXPECT_EQ(dest.RowCount(), 2 + s.TotalAdded) << mode << " " << failAt;
        }
    }
}

TEST_F(Run, CountersInExpressionsAndCancelByTheFrontEnd) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}});
    imp.Mappings().Add("ID=STATTOTALIMPORTED * 10");
    imp.Mappings().Add("NAME=NAME + STATTOTALCOUNT");
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"10|a3|null", "20|b3|null", "30|c3|null"}));

    struct Canceler : IKvFrontEnd {
        int updates = 0;
        bool ProgressCanceled() override { return ++updates > 2; }
    } ui;
    SetFrontEnd(&ui);
    dest.EmptyTable();
    imp.Execute();
    SetFrontEnd(nullptr);
    EXPECT_EQ(imp.Statistic().Result, irCanceled);
    EXPECT_EQ(dest.RowCount(), 2);
}

TEST_F(Run, RowsThatCannotBeReadAreCountedWithOrWithoutAHandler) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}});
    imp.Mappings().Add("ID=ID");
    imp.Mappings().Add("NAME=IIF(ID = 2, STRTOINT(NAME), NAME)");
    for (bool handler : {false, true}) {
        dest.EmptyTable();
        std::vector<std::string> places;
        if (handler)
            imp.OnErrorEvent = [&](TObject*, const std::exception&, bool& abort) {
                places.push_back(std::to_string(imp.ErrorPlace().Location.Record) + " " +
                                 imp.ErrorPlace().Field);
                abort = false;
            };
        imp.Execute();
        EXPECT_EQ(imp.Statistic().Result, irExecuted);
        EXPECT_EQ(Counts(), "3 2 0 0 0 1") << handler;
        EXPECT_TRUE(imp.HadProblems());
        EXPECT_EQ(imp.LastMessage(), "The data import process has finished with problems.");
        EXPECT_EQ(places, handler ? std::vector<std::string>{"2 NAME"} : std::vector<std::string>{});
    }
}

TEST_F(Run, AWriteThatFailsNamesItsFieldAndAnUnwritableDatabaseEndsTheRun) {
    SourceRows({{1, "a", "1"}, {2, "b", "2"}, {3, "c", "3"}});
    std::vector<std::string> places;
    int calls = 0;
    imp.OnErrorEvent = [&](TObject*, const std::exception&, bool& abort) {
        ++calls;
        places.push_back(std::to_string(imp.ErrorPlace().Location.Record) + " " + imp.ErrorPlace().Field);
        abort = false; // the handler would go on; the database cannot
    };
    dest.BeforePost = [](bool, const std::vector<Variant>&) {
        throw EDatabaseUnwritable("attempt to write a readonly database");
    };
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irFailed);
    EXPECT_EQ(imp.LastMessage(), "An error has occurred during the data import process.\r\n"
                                 "attempt to write a readonly database");
    EXPECT_EQ(Counts(), "1 0 0 0 0 1");
    EXPECT_EQ(places[0], "1 "); // the row failed as a whole, not one of its fields

    // Without a handler too: one failure, not one per row.
    imp.OnErrorEvent = nullptr;
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irFailed);
    EXPECT_EQ(Counts(), "1 0 0 0 0 1");
}

TEST_F(Run, NothingMappedFailsBeforeTheFirstRow) {
    TKvMemDataSet& other = *new TKvMemDataSet(&root);
    other.SetTableName("OTHER");
    other.AddFieldDef("CODE", ftString, 10);
    other.AddFieldDef("QTY", ftInteger);
    imp.SetDataSet(&other);
    SourceRows({{1, "a", "1"}});
    int rows = 0;
    imp.OnBeforeRecordEvent = [&](TObject*, const std::string&, const Variant&, bool&) { ++rows; };
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irFailed);
    EXPECT_EQ(imp.LastMessage(),
              "An error has occurred during the data import process.\r\n"
              "No source column matches a field of OTHER. Source columns: ID, NAME, PRICE. "
              "Fields: CODE, QTY.");
    EXPECT_EQ(rows, 0);
    EXPECT_EQ(other.RowCount(), 0);
    EXPECT_TRUE(imp.Mappings().Empty()); // the proposal is not kept
}

TEST_F(Run, ParametersNobodyCanAskCancelTheRunWithAMessage) {
    SourceRows({{1, "a", "1"}});
    TKvIParameter& p = imp.Parameters().Add();
    p.SetName("RATE");
    p.SetParameterMode(ipmAsk);
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irCanceled);
    EXPECT_EQ(imp.LastMessage(),
              "The parameters of the import could not be asked: there is no front end to ask them.");

    struct Refuser : IKvFrontEnd {
        bool PromptValues(const std::string&, std::vector<TPromptField>&) override { return false; }
    } ui;
    SetFrontEnd(&ui);
    imp.Execute();
    SetFrontEnd(nullptr);
    EXPECT_EQ(imp.Statistic().Result, irUnknown); // the user canceled: nothing happens
    EXPECT_EQ(dest.RowCount(), 0);
}

TEST_F(Run, LookupTablesRegisteredByName) {
    TKvMemDataSet states; // owned by nobody the component knows
    states.AddFieldDef("CODE", ftString, 2);
    states.AddFieldDef("NAME", ftString, 20);
    states.Open();
    states.AppendRecord({"a", "Alabama"});
    SourceRows({{1, "a", "1"}, {2, "z", "2"}});
    imp.Mappings().Add("ID=ID");
    imp.Mappings().Add("NAME=LOOKUP('states', 'CODE', NAME, '~NAME~')");
    imp.RegisterLookupTable("States", &states);
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"1|Alabama|null", "2|null|null"}));

    imp.RegisterLookupTable("States", nullptr); // forgotten again: the lookup finds nothing
    dest.EmptyTable();
    imp.Execute();
    EXPECT_EQ(DestRows(), (std::vector<std::string>{"1|null|null", "2|null|null"}));
}

TEST_F(Run, AnEmptySourceRunsZeroRows) {
    imp.Execute();
    EXPECT_EQ(imp.Statistic().Result, irExecuted);
    EXPECT_EQ(Counts(), "0 0 0 0 0 0");
}

} // namespace
} // namespace kv
