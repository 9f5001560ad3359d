// Fuzz target: any text imported as CSV into an SQLite table in transactions, once as it is and once with
// one operation failing. The first byte picks the commit count, the fault (a write that fails its row, a
// database that refuses every write, a read of the source) and whether a row error aborts the run and
// rows are read ahead; the second which operation fails; the third the reader's block size. The run with
// the fault must keep whole commits only, or every row but the failed one, with the statistic matching
// the table.

#include "../tests/engine/ImportFaults.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3 || size > 2048) return 0;
    kv::test::TFaultPlan plan;
    plan.CommitCount = data[0] & 7;
    const int fault = (data[0] >> 3) & 3;
    plan.AbortOnError = data[0] & 0x20;
    plan.ReadAhead = !(data[0] & 0x40);
    plan.BlockSize = 1 + data[2] % 64;
    plan.Csv.assign(reinterpret_cast<const char*>(data) + 3, size - 3);

    const kv::test::TFaultRun clean = kv::test::RunWithFault(plan);
    // Columns without a type take any text: no row of any text fails.
    if (clean.Result != kv::irExecuted || clean.Statistic.TotalErrors != 0) std::abort();
    const int operations = fault < 2 ? clean.Posts : clean.Reads;
    if (operations == 0) return 0;
    const int n = 1 + data[1] % operations;
    if (fault < 2) {
        plan.FailPost = n;
        plan.Unwritable = fault == 1;
    } else {
        plan.FailRead = n;
    }
    const std::string problem = kv::test::CheckFaultRun(plan, clean, kv::test::RunWithFault(plan));
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
