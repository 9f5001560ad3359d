// Fuzz target: any bytes as an expression text, tokenized, built and computed twice (fresh and from a
// kept tree), with a host that resolves a few names. Only the library's own errors may come out.

#include "expression/KvIPars.h"
#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > 4096) return 0;
    const std::string text(reinterpret_cast<const char*>(data), size);
    kv::TKvIParser parser;
    parser.OnEvaluate = [](kv::TObject*, const std::string& name, const std::vector<kv::Variant>& args, int,
                           bool, kv::Variant& value, bool& done) {
        if (name == "Qty") value = kv::Variant(7), done = true;
        if (name == "Name") value = kv::Variant(" Ann "), done = true;
        if (name == "Missing") value = kv::Variant::Null(), done = true;
        if (name == "Echo" && !args.empty()) value = args[0], done = true;
    };
    parser.SetText(text);
    std::string fresh, kept;
    try {
        parser.Compile(true);
        fresh = parser.Value().IsArray() ? "array" : parser.Value().AsString();
    } catch (const kv::Exception& e) {
        fresh = "error";
    }
    try {
        parser.Parse();
        const kv::Variant& v = parser.Calculate();
        kept = v.IsArray() ? "array" : v.AsString();
    } catch (const kv::Exception& e) {
        kept = "error";
    }
    // A kept tree computes what a fresh parse computes (RANDOM and GETDATE aside).
    const std::string upper = kv::UpperCase(text);
    if (fresh != kept && upper.find("RANDOM") == std::string::npos &&
        upper.find("GETDATE") == std::string::npos)
        std::abort();
    return 0;
}
