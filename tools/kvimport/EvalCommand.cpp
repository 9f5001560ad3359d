#include "EvalCommand.h"

#include "CommandLine.h"
#include "expression/KvIPars.h"
#include "platform/Exceptions.h"

#include <iostream>
#include <map>

namespace kv::cli {

const char* const EvalUsage =
    "Usage: kvimport eval [--typed] [--param NAME=VALUE]... [--function DEFINITION]... EXPRESSION\n"
    "\n"
    "Evaluates one expression of the mapping language and prints its value.\n"
    "\n"
    "Options:\n"
    "  --typed                 print KIND:TEXT, KIND being null, unassigned, boolean, integer,\n"
    "                          int64, double, datetime, string, bytes or array\n"
    "  --param NAME=VALUE      the name NAME resolves to the text VALUE (repeatable)\n"
    "  --function DEFINITION   adds a user function, such as 'TWICE(X)=X*2' (repeatable)\n"
    "  --                      ends the options (for an expression that starts with '-')\n"
    "\n"
    "Values print as text under the regional settings of the environment's locale. Names that\n"
    "nothing resolves evaluate to their own text.\n"
    "\n"
    "Examples:\n"
    "  kvimport eval '8 - 4 - 2'                         prints 6 (equal operators group to the right)\n"
    "  kvimport eval \"UPPER(TRIM('  ok '))\"              prints OK\n"
    "  kvimport eval --param RATE=1.2 'IIF(15 > 10, 15 * RATE, 15)'\n"
    "  kvimport eval --function 'TWICE(X)=X*2' 'TWICE(21)'\n"
    "\n"
    "Exit status: 0 evaluated, 1 expression error (message on stderr), 2 usage error.\n";

namespace {

const char* KindName(TVarType type) {
    switch (type) {
    case varEmpty:
        return "unassigned";
    case varNull:
        return "null";
    case varBoolean:
        return "boolean";
    case varInteger:
        return "integer";
    case varInt64:
        return "int64";
    case varDouble:
        return "double";
    case varDate:
        return "datetime";
    case varString:
        return "string";
    case varBytes:
        return "bytes";
    case varArray:
        return "array";
    }
    return "unknown";
}

std::string ValueText(const Variant& v) {
    if (!v.IsArray()) return v.AsString();
    std::string text = "[";
    for (size_t i = 0; i < v.ItemCount(); ++i) text += (i ? ", " : "") + ValueText(v.Item(i));
    return text + "]";
}

} // namespace

int RunEval(const std::vector<std::string>& args) {
    ArgReader reader(args);
    bool typed = false;
    std::map<std::string, std::string> params;
    std::vector<std::string> functions, positionals;
    while (!reader.AtEnd()) {
        if (!reader.NextIsOption()) {
            if (!reader.AtEnd()) positionals.push_back(reader.TakePositional());
            continue;
        }
        std::string option = reader.TakeOption();
        if (option == "help" || option == "h") {
            throw HelpRequested();
        } else if (option == "typed") {
            typed = true;
        } else if (option == "param") {
            std::string nameValue = reader.TakeValue(option);
            size_t eq = nameValue.find('=');
            if (eq == std::string::npos || eq == 0)
                throw UsageError("--param expects NAME=VALUE, got '" + nameValue + "'");
            params[nameValue.substr(0, eq)] = nameValue.substr(eq + 1);
        } else if (option == "function") {
            functions.push_back(reader.TakeValue(option));
        } else {
            throw UsageError("unknown option --" + option + " for eval");
        }
    }
    if (positionals.size() != 1)
        throw UsageError(positionals.empty() ? "eval needs an EXPRESSION"
                                             : "eval takes one EXPRESSION; quote it");

    try {
        for (const std::string& definition : functions) lstKvIRegFunctions.AddFunction(definition);
        TKvIParser parser;
        parser.SetText(positionals[0]);
        parser.OnEvaluate = [&params](TObject*, const std::string& name, const std::vector<Variant>&,
                                      int argCount, bool, Variant& value, bool& done) {
            if (argCount != 0) return;
            auto it = params.find(name);
            if (it == params.end()) return;
            value = Variant(it->second);
            done = true;
        };
        parser.Compile(true);
        const Variant& value = parser.Value();
        if (typed) std::cout << KindName(value.VarType()) << ':';
        std::cout << ValueText(value) << '\n';
    } catch (const kv::Exception& e) {
        std::cerr << e.Message() << '\n';
        return ExitFailed;
    }
    return ExitOk;
}

} // namespace kv::cli
