#include "expression/KvIParsInternal.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"

namespace kv {

// ---- the parser component ----

TKvIParser::TKvIParser(TComponent* owner) : TComponent(owner) {}
TKvIParser::~TKvIParser() = default;

void TKvIParser::SetText(const std::string& text) {
    if (text == text_ && tree_) return;
    text_ = text;
    tree_.reset();
}

void TKvIParser::Compile(bool calculate) {
    std::unique_ptr<TExpNode> tree = BuildExpressionTree(text_);
    if (calculate) {
        TExpEvalContext context(this);
        value_ = tree->Calculate(context);
    }
}

void TKvIParser::Parse() {
    tree_ = BuildExpressionTree(text_);
}

const Variant& TKvIParser::Calculate() {
    if (!tree_) Parse();
    TExpEvalContext context(this);
    value_ = tree_->Calculate(context);
    return value_;
}

void TKvIParser::Evaluate(const std::string& Eval, const std::vector<Variant>& Args, int ArgCount,
                          bool IsChild, Variant& Value) {
    bool done = false;
    if (!processBeforeEvent_ && OnEvaluate) {
        OnEvaluate(this, Eval, Args, ArgCount, IsChild, Value, done);
        if (done) return;
    }
    // A value the handler produced without claiming the name (LOOKUP, SUBSTITUTE, columns: the import's
    // handler claims only names without arguments) stands unless a user function takes the name.
    if (TKvIParserFunction* function = lstKvIRegFunctions.FunctionByName(Eval)) {
        function->ApplyArguments(Args, ArgCount);
        Value = function->Calculate(this);
        return;
    }
    if (processBeforeEvent_ && OnEvaluate) OnEvaluate(this, Eval, Args, ArgCount, IsChild, Value, done);
}

void TExpEvalContext::Resolve(const std::string& name, const std::vector<Variant>& args, bool isChild,
                              Variant& value) {
    if (function_) {
        int index = function_->ArgumentIndex(name);
        if (index >= 0) {
            value = static_cast<size_t>(index) < frame_->size() ? (*frame_)[static_cast<size_t>(index)]
                                                                : Variant();
            return;
        }
        isChild = true; // a name inside a function body is never the whole mapping
    }
    if (host_) {
        host_->Evaluate(name, args, static_cast<int>(args.size()), isChild, value);
    } else if (TKvIParserFunction* function = lstKvIRegFunctions.FunctionByName(name)) {
        function->ApplyArguments(args, static_cast<int>(args.size()));
        value = function->Calculate(nullptr);
    }
}

// ---- user functions ----

namespace {

bool IsValidFunctionName(std::string_view name) {
    if (name.empty() || (name[0] >= '0' && name[0] <= '9') || name[0] == '.') return false;
    for (char c : name) {
        if (static_cast<unsigned char>(c) <= ' ') return false;
        if (std::string_view("()+-*/^!=<>,\"'[]").find(c) != std::string_view::npos) return false;
    }
    return name != "AND" && name != "OR" && name != "NOT";
}

} // namespace

void TKvIParserFunction::SetAsString(const std::string& definition) {
    const std::string text = Trim(definition);
    const size_t eq = text.find('=');
    if (eq == std::string::npos) throw Exception(Format("Function \"%s\" is not valid.", text));
    const std::string head = Trim(std::string_view(text).substr(0, eq));
    const std::string body = Trim(std::string_view(text).substr(eq + 1));
    if (head.empty() || body.empty()) throw Exception(Format("Function \"%s\" is not valid.", text));

    std::string name = head;
    std::vector<std::string> arguments;
    const size_t open = head.find('(');
    if (open != std::string::npos) {
        const std::string inner = head.substr(open + 1, head.size() - open - 2);
        if (head.back() != ')' || inner.find_first_of("()") != std::string::npos)
            throw Exception(Format("Function header \"%s\" is not valid.", head));
        name = Trim(std::string_view(head).substr(0, open));
        if (!Trim(inner).empty()) {
            std::string rest = inner;
            for (;;) {
                size_t comma = rest.find(',');
                std::string argument = Trim(std::string_view(rest).substr(0, comma));
                if (argument.find_first_of(" \t") != std::string::npos)
                    throw Exception("Function parse error: delimitor \",\" expected between arguments.");
                if (!IsValidFunctionName(argument))
                    throw Exception(Format("Function header \"%s\" is not valid.", head));
                arguments.push_back(argument);
                if (comma == std::string::npos) break;
                rest.erase(0, comma + 1);
            }
        }
    }
    if (!IsValidFunctionName(name)) throw Exception(Format("Function header \"%s\" is not valid.", head));

    tree_ = BuildExpressionTree(body);
    name_ = name;
    arguments_ = std::move(arguments);
    expression_ = body;
    Syntax = AsString().substr(0, AsString().find('='));
}

std::string TKvIParserFunction::AsString() const {
    std::string head = name_;
    if (!arguments_.empty()) {
        head += "(";
        for (size_t i = 0; i < arguments_.size(); ++i) head += (i ? ", " : "") + arguments_[i];
        head += ")";
    }
    return head + "=" + expression_;
}

void TKvIParserFunction::ApplyArguments(const std::vector<Variant>& Args, int Count) {
    bound_.assign(arguments_.size(), Variant());
    for (size_t i = 0; i < bound_.size() && static_cast<int>(i) < Count && i < Args.size(); ++i)
        bound_[i] = Args[i];
}

int TKvIParserFunction::ArgumentIndex(std::string_view name) const {
    for (size_t i = 0; i < arguments_.size(); ++i)
        if (SameText(arguments_[i], name)) return static_cast<int>(i);
    return -1;
}

bool TKvIParserFunction::EvalArgs(const std::string& name, Variant& value) const {
    int index = ArgumentIndex(name);
    if (index < 0) return false;
    value = static_cast<size_t>(index) < bound_.size() ? bound_[static_cast<size_t>(index)] : Variant();
    return true;
}

Variant TKvIParserFunction::Calculate(TKvIParser* host) {
    if (!tree_) return Variant();
    // The bound values move into a frame of this call, so that a recursive call binds its own.
    const std::vector<Variant> frame = std::move(bound_);
    bound_.clear();
    const std::shared_ptr<const TExpNode> tree = tree_; // survives a redefinition during the call
    TExpEvalContext context(host);
    context.SetFrame(this, &frame);
    return tree->Calculate(context);
}

TKvIParserFunction& TKvIParserFunctions::AddFunction(const std::string& definition) {
    auto function = std::make_unique<TKvIParserFunction>(definition);
    items_.push_back(std::move(function));
    return *items_.back();
}

void TKvIParserFunctions::Remove(int index) {
    if (index < 0 || index >= Count()) throw EListError(Format("List index out of bounds (%d)", index));
    items_.erase(items_.begin() + index);
}

TKvIParserFunction& TKvIParserFunctions::GetFunction(int index) {
    if (index < 0 || index >= Count()) throw EListError(Format("List index out of bounds (%d)", index));
    return *items_[static_cast<size_t>(index)];
}

TKvIParserFunction* TKvIParserFunctions::FunctionByName(std::string_view name) {
    // The latest definition of a name stands: a function defined again replaces the one before it.
    for (auto f = items_.rbegin(); f != items_.rend(); ++f)
        if (SameText((*f)->Name(), name)) return f->get();
    return nullptr;
}

} // namespace kv
