// Each write of an import, then each read of its source, made to fail in turn: the table keeps whole
// commits only, or every row but the failed one, and the statistic matches the table.

#include "ImportFaults.h"
#include "TestSupport.h"

namespace kv::test {
namespace {

// Ten rows of varied length, one with a quoted comma and one with a quoted line break, so that rows
// straddle the reader's blocks.
const char* const kCsv = "1,one\r\n2,\"two, quoted\"\r\n3,three\r\n4,\"four\r\nlines\"\r\n5,\r\n"
                         "6,a longer sixth row than the rest\r\n7,seven\r\n8,eight\r\n9,nine\r\n10,ten\r\n";
constexpr int kRows = 10;

std::vector<int> FirstRows(int count) {
    std::vector<int> rows;
    for (int row = 1; row <= count; ++row) rows.push_back(row);
    return rows;
}

TFaultRun CleanRun(const TFaultPlan& plan) {
    TFaultPlan clean = plan;
    clean.FailPost = clean.FailRead = 0;
    TFaultRun run = RunWithFault(clean);
    EXPECT_EQ(run.Result, irExecuted);
    EXPECT_EQ(run.Table, FirstRows(kRows));
    EXPECT_EQ(run.Posts, kRows);
    return run;
}

struct TWriteCase {
    const char* Name;
    bool Unwritable;
    bool AbortOnError;
};

TEST(FaultInjection, EachWriteFailsInTurn) {
    const TWriteCase cases[] = {
        {"row error, the run goes on", false, false},
        {"row error that aborts", false, true},
        {"database refusing every write", true, false},
    };
    for (const TWriteCase& c : cases) {
        for (int commitCount : {1, 2, 3, 4, 0}) {
            TFaultPlan plan;
            plan.Csv = kCsv;
            plan.CommitCount = commitCount;
            plan.Unwritable = c.Unwritable;
            plan.AbortOnError = c.AbortOnError;
            const TFaultRun clean = CleanRun(plan);
            for (int n = 1; n <= clean.Posts; ++n) {
                SCOPED_TRACE(std::string(c.Name) + ", commit every " + std::to_string(commitCount) +
                             ", write " + std::to_string(n) + " fails");
                plan.FailPost = n;
                const TFaultRun run = RunWithFault(plan);
                EXPECT_EQ(CheckFaultRun(plan, clean, run), "");
                EXPECT_EQ(run.FailedRows, std::vector<int>{n});
                EXPECT_EQ(run.Statistic.TotalErrors, 1);
                if (c.Unwritable || c.AbortOnError) {
                    // Whole transactions of commitCount rows before the failed one.
                    EXPECT_EQ(run.Result, irFailed);
                    EXPECT_EQ(run.Table, FirstRows(commitCount ? (n - 1) / commitCount * commitCount : 0));
                    EXPECT_EQ(run.RolledBack, commitCount ? (n - 1) % commitCount : n - 1);
                } else {
                    EXPECT_EQ(run.Result, irExecuted);
                    EXPECT_EQ(run.Table.size(), static_cast<size_t>(kRows - 1));
                    EXPECT_EQ(run.Statistic.TotalAdded, kRows - 1);
                }
            }
        }
    }
}

TEST(FaultInjection, EachReadFailsInTurn) {
    for (bool readAhead : {true, false}) {
        for (bool abortOnError : {false, true}) {
            for (int commitCount : {1, 3}) {
                TFaultPlan plan;
                plan.Csv = kCsv;
                plan.CommitCount = commitCount;
                plan.AbortOnError = abortOnError;
                plan.ReadAhead = readAhead;
                plan.BlockSize = 8;
                const TFaultRun clean = CleanRun(plan);
                ASSERT_GT(clean.Reads, 2 * kRows); // the blocks are small: rows take reads of their own
                int failedBeforeRows = 0, failedRows = 0;
                for (int n = 1; n <= clean.Reads; ++n) {
                    SCOPED_TRACE(std::string(readAhead ? "reading ahead" : "reading in turn") +
                                 (abortOnError ? ", aborting" : "") + ", commit every " +
                                 std::to_string(commitCount) + ", read " + std::to_string(n) + " fails");
                    plan.FailRead = n;
                    const TFaultRun run = RunWithFault(plan);
                    EXPECT_EQ(CheckFaultRun(plan, clean, run), "");
                    // Either the text could not be scanned and nothing ran, or one row could not be read.
                    if (run.Statistic.TotalImported == 0) {
                        EXPECT_EQ(run.Result, irFailed);
                        EXPECT_TRUE(run.Table.empty());
                        ++failedBeforeRows;
                    } else {
                        ASSERT_EQ(run.FailedRows.size(), 1u);
                        EXPECT_EQ(run.Result, abortOnError ? irFailed : irExecuted);
                        ++failedRows;
                    }
                }
                // Both kinds of failure were met.
                EXPECT_GT(failedBeforeRows, 0);
                EXPECT_GT(failedRows, 0);
            }
        }
    }
}

} // namespace
} // namespace kv::test
