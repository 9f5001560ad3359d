// The text reader over a generated CSV (100 MB unless KV_TEXT_BENCH_MB says otherwise) with quoted
// amounts, names with commas and doubled quotes, and notes across two lines: the scan alone (counting the
// rows), every row cut and split, that with every field's value, and the same rows and values served by
// the read-ahead from its second thread.

#include "readers/text/KvTextFields.h"
#include "readers/text/KvTextFile.h"
#include "readers/text/KvTextReadAhead.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

class TGeneratedCsv {
public:
    TGeneratedCsv() {
        const char* mb = std::getenv("KV_TEXT_BENCH_MB");
        const size_t target = static_cast<size_t>(mb ? std::atol(mb) : 100) << 20;
        path_ = (std::filesystem::temp_directory_path() / "kvimport-text-bench.csv").string();
        std::ofstream out(path_, std::ios::binary);
        static const char* const names[] = {"\"Lovelace, Ada\"", "\"Turing, Alan\"",
                                            "\"Hopper, Grace \"\"Amazing\"\"\"",
                                            "\"Mu\xC3\xB1oz, Jos\xC3\xA9\"", "\"Knuth, Donald\""};
        static const char* const notes[] = {"paid", "\"fragile, call first\"", "",
                                            "\"leave at door\r\nring twice\"", "express"};
        std::string chunk = "id,amount,order_date,customer,city,note,paid\r\n";
        uint64_t seed = 1;
        for (uint64_t id = 1; size_ < target; ++id) {
            seed = seed * 6364136223846793005ull + 1442695040888963407ull;
            const unsigned r = static_cast<unsigned>(seed >> 33);
            char line[256];
            const int n = std::snprintf(
                line, sizeof line, "%llu,\"%u,%03u.%02u\",20%02u-%02u-%02u,%s,Z\xC3\xBCrich,%s,%s\r\n",
                static_cast<unsigned long long>(id), r % 1000, r % 997, r % 100, r % 25, 1 + r % 12,
                1 + r % 28, names[r % 5], notes[(r >> 3) % 5], (r & 1) ? "true" : "false");
            chunk.append(line, static_cast<size_t>(n));
            if (chunk.size() > (1 << 20)) {
                out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
                size_ += chunk.size();
                chunk.clear();
            }
        }
        out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        size_ += chunk.size();
    }
    ~TGeneratedCsv() { std::filesystem::remove(path_); }
    const std::string& Path() const { return path_; }
    size_t Size() const { return size_; }

private:
    std::string path_;
    size_t size_ = 0;
};

const TGeneratedCsv& Csv() {
    static TGeneratedCsv csv;
    return csv;
}

void Open(kv::TKvTextFile& file) {
    file.Settings().FieldDelimiter = U',';
    file.Settings().RowFirst = 2;
    file.Open(Csv().Path());
}

void Scan(benchmark::State& state) {
    for (auto _ : state) {
        kv::TKvTextFile file;
        Open(file);
        benchmark::DoNotOptimize(file.RowCount());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Csv().Size()));
}

// Arg 0: split every row; 1: and read every field's value; 2: the same rows and values served by the
// read-ahead from its second thread.
void ScanAndSplit(benchmark::State& state) {
    const int64_t mode = state.range(0);
    int64_t fieldCount = 0;
    for (auto _ : state) {
        kv::TKvTextFile file;
        Open(file);
        kv::TKvTextFields fields;
        fields.SetDelimiter(U',');
        kv::TKvTextReadAhead reader;
        kv::TKvTextRef ref;
        ref.Kind = kv::trkField;
        std::string value;
        kv::TKvTextRowPlace place;
        for (int64_t i = 0; mode == 2 ? reader.Has(file, i, fields) : file.HasRow(i); ++i) {
            if (mode == 2)
                reader.Take(file, i, fields, place);
            else
                fields.SetLine(file.Row(i));
            fieldCount += fields.Count();
            if (mode >= 1)
                for (ref.First = 1; ref.First <= fields.Count(); ++ref.First) fields.GetValue(ref, value);
        }
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * Csv().Size()));
    state.counters["fields"] =
        benchmark::Counter(static_cast<double>(fieldCount), benchmark::Counter::kIsRate);
}

BENCHMARK(Scan)->Unit(benchmark::kMillisecond);
BENCHMARK(ScanAndSplit)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
