#pragma once
// The expression language of mappings, row conditions and parameters: a tokenizer (TExpParser), a tree of
// TExpNode built by operator rank, and an evaluator that hands the names it cannot compute to its host.
// The grammar keeps a few deliberate oddities (right grouping of equal operators, AND/OR binding tighter
// than arithmetic, blanks dropped inside identifiers); mappings written for it rely on them.

#include "platform/Classes.h"
#include "platform/DateUtils.h"
#include "platform/Variant.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kv {

enum TTokenType : uint8_t {
    ttNone,          ///< an illegal character
    ttString,        ///< an identifier, a name or a quoted literal
    ttNumeric,       ///< a number
    ttDateTime,      ///< declared, never produced
    ttParenthesis,   ///< "(" or ")"
    ttOperation,     ///< an operator of the operator table
    ttParamDelimitor ///< ","
};

/// One token of an expression.
struct TExpToken {
    std::string Text;
    TTokenType TokenType = ttNone;
};

/// Cuts an expression text into tokens.
class TExpParser {
public:
    /// Sets the text, trimmed of leading and trailing blanks, and clears the tokens.
    void SetExpression(std::string_view text);
    const std::string& Expression() const { return text_; }
    void Clear();
    /// Clears the tokens, starts at the first character and reads one token.
    const TExpToken* ReadFirstToken();
    /// Reads one token and appends it; nullptr at the end of the text.
    const TExpToken* ReadNextToken();
    /// Reads all tokens of the text.
    void Tokenize();
    const TExpToken& GetToken(int index) const;
    int TokenCount() const { return static_cast<int>(tokens_.size()); }
    const std::vector<TExpToken>& Tokens() const { return tokens_; }

private:
    std::string text_;
    size_t pos_ = 0; // 0-based index of the next character
    std::vector<TExpToken> tokens_;
};

class TKvIParser;
class TKvIParserFunction;

/// Name resolution handler: Eval is the name as written, Args the computed arguments, IsChild true when the
/// name is not the root of the tree; the handler sets Value and, when it has produced it, Done.
using TOnEvaluate =
    std::function<void(TObject* Sender, const std::string& Eval, const std::vector<Variant>& Args,
                       int ArgCount, bool IsChild, Variant& Value, bool& Done)>;

/// At most this many arguments are handed to a name that the host resolves.
constexpr int KvIMaxHostArguments = 11;
/// Nesting beyond this ends in an error instead of exhausting the stack.
constexpr int KvIMaxNestingDepth = 1000;
/// One computation of an expression ends in an error after this many nodes.
constexpr int64_t KvIMaxEvaluationSteps = 1'000'000;

class TExpEvalContext;

/// A node of the expression tree. A built tree is immutable and may be computed any number of times.
class TExpNode {
public:
    explicit TExpNode(const TExpNode* parent = nullptr) : parent_(parent) {}

    /// Builds this node from tokens [first, last) of `tokens`; `match` holds, for each "(", the index of
    /// its ")" (or -1).
    void Build(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first, int last,
               int depth);
    /// Computes the node's value.
    Variant Calculate(TExpEvalContext& context) const;

    const TExpNode* Parent() const { return parent_; }
    int ChildCount() const { return static_cast<int>(children_.size()); }
    const TExpNode& GetChildren(int index) const { return *children_[static_cast<size_t>(index)]; }
    /// The operator, the function or name, or the literal of this node; empty for an empty operand.
    const TExpToken& KeyToken() const { return key_; }
    bool IsEmpty() const { return !hasKey_; }
    /// True, with the name, when the node is one name that goes to the host (no arguments, not built in).
    bool IsHostName(std::string& name) const;

    /// Computes argument `index` (Unassigned when there is no such argument).
    Variant Argument(int index, TExpEvalContext& context) const;

private:
    void RemoveSorroundingParenthesis(const std::vector<TExpToken>& tokens, const std::vector<int>& match,
                                      int& first, int& last) const;
    int FindLSOTI(const std::vector<TExpToken>& tokens, int first, int last) const;
    void SplitToChildren(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first,
                         int last, int index, int depth);
    bool ParseFunction(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first,
                       int last, int depth);
    void Prepare();
    Variant CalculateOperator(TExpEvalContext& context) const;
    Variant Evaluate(TExpEvalContext& context) const;

    const TExpNode* parent_;
    std::vector<std::unique_ptr<TExpNode>> children_;
    TExpToken key_;
    bool hasKey_ = false;
    // Prepared once at build time so that a kept tree computes fast.
    int operator_ = 0; // 1-based operator table index, 0 when not an operator
    int builtin_ = -1; // built-in function id, -1 for names that go to the host
    bool numberValid_ = false;
    double number_ = 0;
    std::string name_; // the name as resolved (one surrounding quote pair removed)
};

/// Per-evaluation state: who resolves names, and the arguments of the user function being computed.
class TExpEvalContext {
public:
    explicit TExpEvalContext(TKvIParser* host) : host_(host) {}
    TKvIParser* Host() const { return host_; }
    /// Resolves a name the tree cannot compute.
    void Resolve(const std::string& name, const std::vector<Variant>& args, bool isChild, Variant& value);
    /// Counts nesting (across user function calls too) and fails beyond KvIMaxNestingDepth.
    void Enter();
    void Leave();
    void SetFrame(const TKvIParserFunction* function, const std::vector<Variant>* values) {
        function_ = function;
        frame_ = values;
    }

private:
    TKvIParser* host_;
    const TKvIParserFunction* function_ = nullptr;
    const std::vector<Variant>* frame_ = nullptr;
};

/// Evaluates one expression text. Compile() parses and computes in one go; Parse() keeps the tree so that
/// Calculate() can compute it again for every row at the cost of the computation alone.
class TKvIParser : public TComponent {
public:
    explicit TKvIParser(TComponent* owner = nullptr);
    ~TKvIParser() override;

    bool ProcessBeforeEvent() const { return processBeforeEvent_; }
    void SetProcessBeforeEvent(bool value) { processBeforeEvent_ = value; }
    const std::string& Text() const { return text_; }
    void SetText(const std::string& text);
    TOnEvaluate OnEvaluate;

    /// Tokenizes Text, builds the tree and, when `calculate` is set, computes it into Value; the tree is
    /// freed before it returns.
    void Compile(bool calculate);
    /// Syntax check only; errors are raised.
    void Validate() { Compile(false); }
    Variant GetValue() const { return value_; }
    const Variant& Value() const { return value_; }

    /// Parses Text and keeps the tree (until Text changes).
    void Parse();
    bool Parsed() const { return tree_ != nullptr; }
    /// The kept tree (nullptr before Parse).
    const TExpNode* Tree() const { return tree_.get(); }
    /// Computes the kept tree (parsing first when needed) and stores the result as Value.
    const Variant& Calculate();

    /// The resolution of one name that the tree cannot compute.
    virtual void Evaluate(const std::string& Eval, const std::vector<Variant>& Args, int ArgCount,
                          bool IsChild, Variant& Value);

    std::string ClassName() const override { return "TKvIParser"; }

private:
    bool processBeforeEvent_ = false;
    std::string text_;
    Variant value_;
    std::unique_ptr<TExpNode> tree_;
};

/// Builds the tree of an expression text (used by the parser and by user functions).
std::unique_ptr<TExpNode> BuildExpressionTree(const std::string& text);

/// A user function defined by a text "NAME(ARG1, ARG2)=expression" or "NAME=expression".
class TKvIParserFunction {
public:
    TKvIParserFunction() = default;
    explicit TKvIParserFunction(const std::string& definition) { SetAsString(definition); }

    void SetAsString(const std::string& definition);
    std::string AsString() const;
    const std::string& Name() const { return name_; }
    const std::vector<std::string>& Arguments() const { return arguments_; }
    const std::string& Expression() const { return expression_; }

    std::string Description;
    std::string Category;
    std::string Syntax;

    /// Binds actual values to the argument names (missing ones are Unassigned).
    void ApplyArguments(const std::vector<Variant>& Args, int Count);
    /// Resolves a name inside the body: true with the bound value for an argument name.
    bool EvalArgs(const std::string& name, Variant& value) const;
    /// Position of an argument name (case-insensitive), -1 when it is none.
    int ArgumentIndex(std::string_view name) const;
    /// Computes the body with the bound arguments; other names go to `host` (or stay their own text).
    Variant Calculate(TKvIParser* host);

private:
    std::string name_;
    std::vector<std::string> arguments_;
    std::string expression_;
    std::shared_ptr<const TExpNode> tree_;
    std::vector<Variant> bound_;
};

/// A list of user functions.
class TKvIParserFunctions {
public:
    TKvIParserFunction& AddFunction(const std::string& definition);
    void Remove(int index);
    TKvIParserFunction& GetFunction(int index);
    int Count() const { return static_cast<int>(items_.size()); }
    /// The function of that name, compared case-insensitively (the latest added when several have it);
    /// nullptr when none.
    TKvIParserFunction* FunctionByName(std::string_view name);
    void Clear() { items_.clear(); }

private:
    std::vector<std::unique_ptr<TKvIParserFunction>> items_;
};

/// The registry of user functions; holds "PI=3.14" from start-up.
extern TKvIParserFunctions lstKvIRegFunctions;

// Helper routines used across the library.

/// True when `s`, with the regional decimal separator read as ".", is a floating-point number.
bool StringIsNumeric(std::string_view s);
/// Replaces `oldText` by `newText`. ReplaceAll, when set, takes the place of IgnoreCase: both set means a
/// case-sensitive replace-all.
std::string ReplaceStr(const std::string& text, const std::string& oldText, const std::string& newText,
                       bool IgnoreCase, bool ReplaceAll);
std::string ReplaceWideStr(const std::string& text, const std::string& oldText, const std::string& newText,
                           bool IgnoreCase, bool ReplaceAll);
/// Takes the text up to the first `delimiter` out of `s` (all of it when there is none) and returns it.
std::string GetNextItem(std::string& s, std::string_view delimiter);
/// A date-time read from `value` by the letters of `mask` (D M Y H N S); 0 where nothing valid was found.
/// When the mask ends with the seconds, a fraction after them ("." or "," and digits) gives milliseconds.
TDateTime GetDTByMask(std::string_view value, std::string_view mask, char32_t dateSeparator,
                      char32_t timeSeparator);

/// GetDTByMask with the mask read once, for reading many values by the same mask.
class TKvDateMask {
public:
    TKvDateMask(std::string_view mask, char32_t dateSeparator, char32_t timeSeparator);
    TDateTime Read(std::string_view value) const;
    /// As Read, with whether the value held what the mask asks for: a valid date when the mask has date
    /// letters, else a valid time (so that day 0 at midnight is told apart from nothing).
    bool TryRead(std::string_view value, TDateTime& out) const;
    char32_t DateSeparator() const { return dateSeparator_; }
    char32_t TimeSeparator() const { return timeSeparator_; }

private:
    enum : uint8_t { kDay, kMonth, kYear, kHour, kMinute, kSecond, kNone };
    struct TParts;
    /// Hands each character of `value` to `visit` with the part of the mask it stands for; gives the
    /// position after the last one that had a place in the mask, or npos when `visit` stopped the walk.
    template <class Visit> size_t Walk(std::string_view value, Visit visit) const;
    bool Compose(const TParts& parts, std::string_view value, TDateTime& out) const;

    char32_t dateSeparator_, timeSeparator_;
    std::vector<uint8_t> roles_; ///< the part of each character of the reduced mask
    bool hasDate_ = false;       ///< the mask has a day, a month or a year
};

} // namespace kv
