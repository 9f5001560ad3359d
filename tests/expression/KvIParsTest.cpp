// The tokenizer, the tree built by operator rank, and name resolution through the host.

#include "ExpressionTestSupport.h"
#include "TestSupport.h"

namespace kv {
namespace {

using test::Eval;

std::string Tokens(const std::string& text) {
    static const char* const kinds[] = {"none", "s", "n", "dt", "p", "op", ","};
    TExpParser parser;
    parser.SetExpression(text);
    std::string out;
    try {
        parser.Tokenize();
    } catch (const Exception& e) {
        return "error:" + e.Message();
    }
    for (const TExpToken& t : parser.Tokens())
        out += std::string(out.empty() ? "" : " ") + kinds[t.TokenType] + "[" + t.Text + "]";
    return out;
}

TEST(Tokenizer, Runs) {
    const std::pair<const char*, const char*> cases[] = {
        {"a<=b", "s[a] op[<=] s[b]"},
        {"x != 10", "s[x] op[!=] n[10]"},
        {"a > = b", "s[a] op[>] op[=] s[b]"}, // blanks end operator runs
        {"12ab", "n[12] s[ab]"},              // a number followed by letters splits
        {"ab12", "s[ab12]"},                  // identifiers may hold digits
        {"Last Name", "s[LastName]"},         // blanks are dropped inside identifiers
        {"3.14 * r", "n[3.14] op[*] s[r]"},
        {"Table.Field", "s[Table.Field]"},
        {"'It''s'", "s[It's]"},    // a doubled quote is kept once
        {"'abc'def", "s[abcdef]"}, // letters after the closing quote join the token
        {"[First Name]", "s[First Name]"},
        {"[a'", "s[a]"}, // any closing quote closes any opening one
        {"\"x\" + 'y'", "s[x] op[+] s[y]"},
        {"'a, (b)'", "s[a, (b)]"},
        {"f(a,b)", "s[f] p[(] s[a] ,[,] s[b] p[)]"},
        {"a AND b", "s[aANDb]"}, // so words run together
        {"(a)AND(b)", "p[(] s[a] p[)] op[AND] p[(] s[b] p[)]"},
        {"(a)and(b)", "p[(] s[a] p[)] s[and] p[(] s[b] p[)]"}, // operators are case-sensitive
        {"NOT x", "s[NOTx]"},
        {"+-", "op[+-]"},
        {"  7  ", "n[7]"},
        {"", ""},
    };
    for (auto& [text, tokens] : cases) EXPECT_EQ(Tokens(text), tokens) << text;
}

TEST(Tokenizer, IllegalCharacterNamesItsPosition) {
    EXPECT_EQ(Tokens(std::string("ab + \0x", 7)),
              std::string("error:Parse error: illegal character \"\0\" at position 6.", 55));
    EXPECT_EQ(Tokens(std::string("'\0'", 3)), std::string("s[\0]", 4)); // inside quotes it is text
    // The position counts characters of the trimmed text.
    EXPECT_EQ(Tokens(std::string("  \xC3\xA9+\0x", 7)),
              std::string("error:Parse error: illegal character \"\0\" at position 3.", 55));
}

TEST(Tree, GroupingFollowsTheOperatorTable) {
    const std::pair<const char*, const char*> cases[] = {
        {"8 - 4 - 2", "double:6"},  // equal operators group to the right
        {"10 - 4 + 2", "double:8"}, // "+" ranks first: (10 - 4) + 2
        {"2 * 3 + 4", "double:10"},
        {"2 * (3 + 4)", "double:14"},
        {"16 / 4 / 2", "double:8"}, // 16 / (4 / 2)
        {"2 ^ 3 ^ 2", "double:512"},
        {"1 + 2 = 3", "double:1"}, // "=" binds tighter: 1 + (2 = 3) is 1 + False
        {"(1 + 2) = 3", "boolean:True"},
        {"((5))", "double:5"},
        {"(1)+(2)", "double:3"},
        {"-5", "double:-5"},                   // an empty left operand counts as 0
        {"3 * -2", "double:-2"},               // "-" splits first: (3 * nothing) - 2
        {"3 < 4 AND (4 < 5)", "boolean:True"}, // 3 < (4 AND True), bitwise
        {"(3 < 4) AND (4 < 5)", "boolean:True"},
        {"(1 = 1) OR (1 = 2)", "boolean:True"},
        {"(6) AND (3)", "integer:2"},
        {"'10' + '4'", "string:104"},
        {"'10' - '4'", "double:6"},
        {"'a' + 1", "string:a1"},
        {"1 + 2 + 'x'", "string:12x"}, // 1 + (2 + 'x')
        {"2 <> 3", "boolean:True"},
        {"2 != 2", "boolean:False"},
        {"'b' > 'a'", "boolean:True"},
        {"", "unassigned:"},
        {"()", "unassigned:"},
    };
    for (auto& [text, result] : cases) EXPECT_EQ(Eval(text), result) << text;
}

TEST(Tree, NumberLiteralsReadWithThePointWhateverTheSettings) {
    // Under a decimal comma a computed number is still a number: nothing reads it back as text.
    test::ScopedFormatSettings german(test::GermanSettings());
    const std::pair<const char*, const char*> cases[] = {
        {"1.5 * 2", "double:3"},
        {"10 / 4 - 0.5", "double:2"},
        {"0.5 + 0.25", "double:0,75"}, // written by the regional settings
        {"1234.5 * 1", "double:1234,5"},
        {"2.5 ^ 2", "double:6,25"},
        {"3 * 1.5 - 0.5", "double:4"},
        {"(1.5 > 1.25) AND (1.5 = 1.50)", "boolean:True"},
        {"STRTOFLOAT('1,5') * 2", "double:3"}, // text by the regional settings, as before
    };
    for (auto& [text, result] : cases) EXPECT_EQ(Eval(text), result) << text;
}

TEST(Tree, ErrorMessages) {
    const std::pair<const char*, const char*> cases[] = {
        {"12ab", "Compile error: syntax fault."},
        {"1 a", "Compile error: syntax fault."},
        {"NOT(x)", "Compile error: syntax fault."},   // NOT is never a split point
        {"SUBSTR()", "Compile error: syntax fault."}, // a call needs arguments
        {"f(1", "Compile error: syntax fault."},
        {"(1))", "Compile error: parenthesis mismatch."},
        {"1) + (2", "Compile error: parenthesis mismatch."},
        {"f(1)(2)", "Function parse error."},
        {"3!", "Calculate error: syntax tree fault."}, // "!" always gets two operands
        {"1 +- 2", "Compile error: syntax fault."},
        {"1.2.3", "'1.2.3' is not a valid floating point value"},
        {".", "'.' is not a valid floating point value"},
        {",", "Compile error: syntax fault."},
        {"(", "Compile error: syntax fault."},
    };
    for (auto& [text, message] : cases) EXPECT_EQ(Eval(text), std::string("error:") + message) << text;
}

TEST(Tree, DeepNestingEndsInAnErrorOfItsOwn) {
    const int depth = 20000;
    std::string parens = std::string(depth, '(') + "1" + std::string(depth, ')');
    EXPECT_EQ(Eval(parens), "double:1"); // surrounding parentheses are peeled in a loop
    std::string calls;
    for (int i = 0; i < depth; ++i) calls += "ABS(";
    calls += "1" + std::string(depth, ')');
    EXPECT_EQ(Eval(calls), "error:Compile error: expression nested too deeply.");
    std::string chain = "1";
    for (int i = 0; i < 5000; ++i) chain += "-1";
    EXPECT_EQ(Eval(chain), "error:Compile error: expression nested too deeply.");
    std::string shortChain = "1";
    for (int i = 0; i < 500; ++i) shortChain += "+1";
    EXPECT_EQ(Eval(shortChain), "double:501");
}

// Records what the host is asked.
struct HostLog {
    std::vector<std::string> calls;
    TOnEvaluate Handler(bool claim) {
        return [this, claim](TObject*, const std::string& name, const std::vector<Variant>& args, int count,
                             bool isChild, Variant& value, bool& done) {
            std::string call = name + "/" + std::to_string(count) + (isChild ? "/child" : "/root");
            for (const Variant& a : args) call += "," + a.AsString();
            calls.push_back(call);
            if (claim && name == "PI") value = Variant(3.0), done = true;
            if (name == "Qty") value = Variant(4), done = true;
        };
    }
};

TEST(Names, ResolutionOrderAndArguments) {
    HostLog log;
    TKvIParser parser;
    parser.OnEvaluate = log.Handler(true);
    parser.SetText("Qty * PI + LOOKUP('T', \"Code\", [Last Name], 2)");
    parser.Compile(true);
    EXPECT_EQ(test::TypedText(parser.Value()), "string:12LOOKUP"); // the host leaves LOOKUP its own text
    EXPECT_EQ(log.calls,
              (std::vector<std::string>{"Qty/0/child", "PI/0/child", "T/0/child", "Code/0/child",
                                        "Last Name/0/child", "LOOKUP/4/child,T,Code,Last Name,2"}));

    // With ProcessBeforeEvent the registry answers first: the host never hears of PI.
    log.calls.clear();
    parser.SetProcessBeforeEvent(true);
    parser.SetText("PI");
    parser.Compile(true);
    EXPECT_EQ(test::TypedText(parser.Value()), "double:3.14");
    EXPECT_TRUE(log.calls.empty());

    parser.SetText("Nobody");
    parser.Compile(true);
    EXPECT_EQ(test::TypedText(parser.Value()), "string:Nobody");
    EXPECT_EQ(log.calls, std::vector<std::string>{"Nobody/0/root"});
}

TEST(Names, AtMostElevenArgumentsGoToTheHost) {
    EXPECT_EQ(Eval("F(1,2,3,4,5,6,7,8,9,10,11)"), "string:F");
    EXPECT_EQ(Eval("F(1,2,3,4,5,6,7,8,9,10,11,12)"), "error:Variant or safe array index out of bounds");
    EXPECT_EQ(Eval("SUM(1,2,3,4,5,6,7,8,9,10,11,12)"), "double:78"); // built-ins have no such limit
}

TEST(Parser, AKeptTreeGivesWhatAFreshParseGives) {
    const char* texts[] = {"UPPER(TRIM(Name)) + '-' + Qty", "IIF(Qty > 10, Qty * 1.2, Qty)", "PI * Qty",
                           "COUNT(Qty, Qty, 1)", "Name"};
    const char* names[] = {" ann ", "bob", "  "};
    for (const char* text : texts) {
        TKvIParser kept;
        kept.SetText(text);
        kept.Parse();
        for (int row = 0; row < 30; ++row) {
            std::map<std::string, Variant> values{{"Name", Variant(names[row % 3])}, {"Qty", Variant(row)}};
            kept.OnEvaluate = [&](TObject*, const std::string& n, const std::vector<Variant>&, int, bool,
                                  Variant& v, bool& done) {
                if (values.count(n)) v = values[n], done = true;
            };
            EXPECT_EQ(test::TypedText(kept.Calculate()), Eval(text, values)) << text << " row " << row;
        }
    }
}

TEST(Parser, ValidateOnlyChecksSyntax) {
    TKvIParser parser;
    parser.SetText("1 / 0");
    EXPECT_NO_THROW(parser.Validate());
    EXPECT_TRUE(parser.GetValue().IsEmpty());
    parser.SetText("(1");
    EXPECT_THROW(parser.Validate(), Exception);
}

} // namespace
} // namespace kv
