#pragma once
// Evaluating expression texts in tests: the typed text of the result, or the error message.

#include "expression/KvIPars.h"
#include "platform/Exceptions.h"

#include <map>
#include <string>

namespace kv::test {

/// "kind:text" of a value, kinds as the eval command prints them.
inline std::string TypedText(const Variant& v) {
    static const char* const kinds[] = {"unassigned", "null",     "boolean", "integer", "int64",
                                        "double",     "datetime", "string",  "bytes",   "array"};
    return std::string(kinds[v.VarType()]) + ":" + (v.IsArray() ? std::string() : v.AsString());
}

/// The typed result of `text`, or "error:<message>"; `names` resolves names without arguments.
inline std::string Eval(const std::string& text, const std::map<std::string, Variant>& names = {}) {
    TKvIParser parser;
    parser.SetText(text);
    if (!names.empty())
        parser.OnEvaluate = [&](TObject*, const std::string& name, const std::vector<Variant>&, int count,
                                bool, Variant& value, bool& done) {
            auto it = names.find(name);
            if (count == 0 && it != names.end()) value = it->second, done = true;
        };
    try {
        parser.Compile(true);
        return TypedText(parser.Value());
    } catch (const Exception& e) {
        return "error:" + e.Message();
    }
}

} // namespace kv::test
