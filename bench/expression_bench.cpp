// Mapping expressions as the engine computes them: parse and compute for every row, against parse once
// and compute the kept tree for every row. The host resolves column names as an import does.

#include "expression/KvIPars.h"

#include <benchmark/benchmark.h>

namespace {

const char* const kExpressions[] = {
    "Name",                                    // a plain column
    "UPPER(TRIM(Name))",                       // string functions
    "IIF(Qty > 10, Qty * 1.2, Qty)",           // a condition with arithmetic
    "LOOKUP('States', 'Code', State, 'Name')", // a call the host resolves
};

void AttachHost(kv::TKvIParser& parser) {
    static const kv::Variant name("  Ada Lovelace "), qty(15), state("IL"), illinois("Illinois");
    parser.OnEvaluate = [](kv::TObject*, const std::string& n, const std::vector<kv::Variant>& args,
                           int count, bool, kv::Variant& value, bool& done) {
        done = true;
        if (count == 4 && n == "LOOKUP")
            value = args[2].StringRef() == "IL" ? illinois : kv::Variant::Null();
        else if (n == "Name")
            value = name;
        else if (n == "Qty")
            value = qty;
        else if (n == "State")
            value = state;
        else
            done = false;
    };
}

void ParseAndEvaluate(benchmark::State& state) {
    const char* text = kExpressions[state.range(0)];
    for (auto _ : state) {
        kv::TKvIParser parser;
        AttachHost(parser);
        parser.SetText(text);
        parser.Compile(true);
        benchmark::DoNotOptimize(parser.Value());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(text);
}

void EvaluateKeptTree(benchmark::State& state) {
    const char* text = kExpressions[state.range(0)];
    kv::TKvIParser parser;
    AttachHost(parser);
    parser.SetText(text);
    parser.Parse();
    for (auto _ : state) benchmark::DoNotOptimize(parser.Calculate());
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(text);
}

BENCHMARK(ParseAndEvaluate)->DenseRange(0, 3);
BENCHMARK(EvaluateKeptTree)->DenseRange(0, 3);

} // namespace
