#include "expression/KvIParsInternal.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <array>
#include <cmath>

namespace kv {

namespace expr {

namespace {
constexpr std::array<std::string_view, 16> kOperators = {"+", "-",  "*",  "/",  "^",  "!",   "=",  "<",
                                                         ">", "<=", ">=", "<>", "!=", "AND", "OR", "NOT"};
constexpr int kOpPlus = 1, kOpMinus = 2, kOpTimes = 3, kOpDivide = 4, kOpPower = 5, kOpFactorial = 6,
              kOpEqual = 7, kOpLess = 8, kOpGreater = 9, kOpLessEqual = 10, kOpGreaterEqual = 11,
              kOpNotEqual = 12, kOpNotEqual2 = 13, kOpAnd = 14, kOpOr = 15, kOpNot = 16;

int& EvaluationDepth() {
    thread_local int depth = 0;
    return depth;
}

// Nodes computed since the outermost computation began; user functions that call themselves twice can
// otherwise take exponential time within the nesting limit.
int64_t& EvaluationSteps() {
    thread_local int64_t steps = 0;
    return steps;
}

double Factorial(double n) {
    double result = n;
    for (double k = n - 1; k > 1 && std::isfinite(result); --k) result *= k;
    return n <= 1 ? n : result;
}
} // namespace

int OperatorIndex(std::string_view text) {
    for (size_t i = 0; i < kOperators.size(); ++i)
        if (kOperators[i] == text) return static_cast<int>(i) + 1;
    return 0;
}

int OperatorOperandCount(int index) {
    return index == kOpFactorial || index == kOpNot ? 1 : 2;
}

void RaiseSyntaxTreeFault() {
    throw Exception("Calculate error: syntax tree fault.");
}

} // namespace expr

using namespace expr;

namespace {
[[noreturn]] void RaiseSyntaxFault() {
    throw Exception("Compile error: syntax fault.");
}
bool IsToken(const TExpToken& t, char c) {
    return t.TokenType == ttParenthesis && t.Text.size() == 1 && t.Text[0] == c;
}
} // namespace

// ---- building ----

void TExpNode::Build(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first, int last,
                     int depth) {
    if (depth > KvIMaxNestingDepth) throw Exception("Compile error: expression nested too deeply.");
    if (last - first >= 2) {
        RemoveSorroundingParenthesis(tokens, match, first, last);
        if (last - first >= 2) {
            int index = FindLSOTI(tokens, first, last);
            if (index >= 0) {
                SplitToChildren(tokens, match, first, last, index, depth);
                return;
            }
            if (!ParseFunction(tokens, match, first, last, depth)) RaiseSyntaxFault();
            return;
        }
    }
    if (last - first == 1) {
        key_ = tokens[static_cast<size_t>(first)];
        hasKey_ = true;
        // A lone parenthesis or delimiter can only come from a malformed text.
        if (key_.TokenType == ttParenthesis || key_.TokenType == ttParamDelimitor) RaiseSyntaxFault();
    }
    Prepare();
}

void TExpNode::RemoveSorroundingParenthesis(const std::vector<TExpToken>& tokens,
                                            const std::vector<int>& match, int& first, int& last) const {
    // The "(" in front goes with the ")" at the end when the depth, walked from the front, does not come
    // back to zero before the last token: its partner is the last token, or lies beyond the slice.
    while (last - first >= 2 && IsToken(tokens[static_cast<size_t>(first)], '(') &&
           IsToken(tokens[static_cast<size_t>(last - 1)], ')')) {
        int partner = match[static_cast<size_t>(first)];
        if (partner >= 0 && partner < last - 1) break;
        ++first;
        --last;
    }
}

int TExpNode::FindLSOTI(const std::vector<TExpToken>& tokens, int first, int last) const {
    int depth = 0, best = 16, bestIndex = -1;
    for (int i = first; i < last; ++i) {
        const TExpToken& t = tokens[static_cast<size_t>(i)];
        if (IsToken(t, '(')) {
            ++depth;
        } else if (IsToken(t, ')')) {
            if (--depth < 0) throw Exception("Compile error: parenthesis mismatch.");
        } else if (t.TokenType == ttOperation && depth == 0) {
            int rank = OperatorIndex(t.Text);
            if (rank > 0 && rank < best) {
                best = rank;
                bestIndex = i;
            }
        }
    }
    return bestIndex;
}

void TExpNode::SplitToChildren(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first,
                               int last, int index, int depth) {
    key_ = tokens[static_cast<size_t>(index)];
    hasKey_ = true;
    auto right = std::make_unique<TExpNode>(this);
    right->Build(tokens, match, index + 1, last, depth + 1);
    auto left = std::make_unique<TExpNode>(this);
    left->Build(tokens, match, first, index, depth + 1);
    children_.push_back(std::move(left));
    children_.push_back(std::move(right));
    Prepare();
}

bool TExpNode::ParseFunction(const std::vector<TExpToken>& tokens, const std::vector<int>& match, int first,
                             int last, int depth) {
    if (last - first < 4) return false;
    const TExpToken& name = tokens[static_cast<size_t>(first)];
    if (name.TokenType != ttString || tokens[static_cast<size_t>(first + 1)].TokenType != ttParenthesis ||
        tokens[static_cast<size_t>(last - 1)].TokenType != ttParenthesis)
        return false;
    key_ = name;
    hasKey_ = true;
    int argStart = first + 2, end = last - 1, nesting = 0;
    for (int i = argStart; i <= end; ++i) {
        if (i < end) {
            const TExpToken& t = tokens[static_cast<size_t>(i)];
            if (IsToken(t, '('))
                ++nesting;
            else if (IsToken(t, ')') && --nesting < 0)
                throw Exception("Function parse error.");
            if (t.TokenType != ttParamDelimitor || nesting != 0) continue;
        }
        auto child = std::make_unique<TExpNode>(this);
        child->Build(tokens, match, argStart, i, depth + 1);
        children_.push_back(std::move(child));
        argStart = i + 1;
    }
    Prepare();
    return true;
}

void TExpNode::Prepare() {
    if (!hasKey_) return;
    switch (key_.TokenType) {
    case ttNumeric:
        numberValid_ = TryParseInvariantFloat(key_.Text, number_);
        break;
    case ttOperation:
        operator_ = OperatorIndex(key_.Text);
        break;
    case ttString: {
        std::string_view n = key_.Text;
        if (!n.empty() && (n.front() == '"' || n.front() == '[')) n.remove_prefix(1);
        if (!n.empty() && (n.back() == '"' || n.back() == ']')) n.remove_suffix(1);
        name_ = n;
        builtin_ = BuiltinId(key_.Text);
        break;
    }
    default:
        break;
    }
}

std::unique_ptr<TExpNode> BuildExpressionTree(const std::string& text) {
    TExpParser parser;
    parser.SetExpression(text);
    parser.Tokenize();
    const auto& tokens = parser.Tokens();
    std::vector<int> match(tokens.size(), -1), open;
    for (size_t i = 0; i < tokens.size(); ++i) {
        if (IsToken(tokens[i], '(')) {
            open.push_back(static_cast<int>(i));
        } else if (IsToken(tokens[i], ')') && !open.empty()) {
            match[static_cast<size_t>(open.back())] = static_cast<int>(i);
            open.pop_back();
        }
    }
    auto root = std::make_unique<TExpNode>(nullptr);
    root->Build(tokens, match, 0, static_cast<int>(tokens.size()), 0);
    return root;
}

// ---- computing ----

void TExpEvalContext::Enter() {
    if (EvaluationDepth() == 0) EvaluationSteps() = 0;
    if (++EvaluationSteps() > KvIMaxEvaluationSteps)
        throw Exception("Calculate error: expression too complex.");
    if (++EvaluationDepth() > KvIMaxNestingDepth) {
        --EvaluationDepth();
        throw Exception("Calculate error: expression nested too deeply.");
    }
}

void TExpEvalContext::Leave() {
    --EvaluationDepth();
}

namespace {
struct DepthGuard {
    TExpEvalContext& context;
    explicit DepthGuard(TExpEvalContext& c) : context(c) { context.Enter(); }
    ~DepthGuard() { context.Leave(); }
};
} // namespace

bool TExpNode::IsHostName(std::string& name) const {
    if (!hasKey_ || key_.TokenType != ttString || !children_.empty() || builtin_ == BuiltinGetDate)
        return false;
    name = name_;
    return true;
}

Variant TExpNode::Argument(int index, TExpEvalContext& context) const {
    if (index < 0 || index >= ChildCount()) return Variant();
    return children_[static_cast<size_t>(index)]->Calculate(context);
}

Variant TExpNode::Calculate(TExpEvalContext& context) const {
    if (!hasKey_) return Variant();
    DepthGuard guard(context);
    switch (key_.TokenType) {
    case ttNumeric:
        if (!numberValid_) throw EConvertError("'" + key_.Text + "' is not a valid floating point value");
        return Variant(number_);
    case ttString:
        if (builtin_ >= 0 && (!children_.empty() || builtin_ == BuiltinGetDate))
            return CalculateBuiltin(builtin_, *this, context);
        return Evaluate(context);
    case ttOperation:
        return CalculateOperator(context);
    default:
        RaiseSyntaxTreeFault();
    }
}

Variant TExpNode::Evaluate(TExpEvalContext& context) const {
    if (ChildCount() > KvIMaxHostArguments)
        throw EVariantBadIndexError("Variant or safe array index out of bounds");
    std::vector<Variant> args;
    args.reserve(children_.size());
    for (const auto& child : children_) args.push_back(child->Calculate(context));
    Variant value(name_);
    context.Resolve(name_, args, parent_ != nullptr, value);
    return value;
}

Variant TExpNode::CalculateOperator(TExpEvalContext& context) const {
    if (operator_ == 0 || OperatorOperandCount(operator_) != ChildCount()) RaiseSyntaxTreeFault();
    if (operator_ == kOpFactorial)
        return Variant(Factorial(std::nearbyint(NumericCoercion(children_[0]->Calculate(context)))));
    if (operator_ == kOpNot) return children_[0]->Calculate(context).Not();

    const Variant a = children_[0]->Calculate(context);
    const Variant b = children_[1]->Calculate(context);
    switch (operator_) {
    case kOpPlus:
        if (a.IsString() != b.IsString()) return Variant(a.AsString() + b.AsString());
        return a + b;
    case kOpMinus:
        return Variant(NumericCoercion(a)) - Variant(NumericCoercion(b));
    case kOpTimes:
        return Variant(NumericCoercion(a)) * Variant(NumericCoercion(b));
    case kOpDivide:
        return Variant(NumericCoercion(a)) / Variant(NumericCoercion(b));
    case kOpPower:
        return Variant(Power(NumericCoercion(a), NumericCoercion(b)));
    case kOpEqual:
        return Variant(a.Compare(b) == vrEqual);
    case kOpLess:
        return Variant(a.Compare(b) == vrLessThan);
    case kOpGreater:
        return Variant(a.Compare(b) == vrGreaterThan);
    case kOpLessEqual: {
        auto r = a.Compare(b);
        return Variant(r == vrLessThan || r == vrEqual);
    }
    case kOpGreaterEqual: {
        auto r = a.Compare(b);
        return Variant(r == vrGreaterThan || r == vrEqual);
    }
    case kOpNotEqual:
    case kOpNotEqual2:
        return Variant(a.Compare(b) != vrEqual);
    case kOpAnd:
        return a.And(b);
    case kOpOr:
        return a.Or(b);
    default:
        RaiseSyntaxTreeFault();
    }
}

} // namespace kv
