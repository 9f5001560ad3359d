#pragma once
// Shared between the files of the expression unit.

#include "expression/KvIPars.h"

#include <string_view>

namespace kv::expr {

/// 1-based index in the operator table, 0 when `text` is not an operator.
int OperatorIndex(std::string_view text);
/// Operands an operator takes: 1 for "!" and "NOT", 2 for the others.
int OperatorOperandCount(int index);

/// Built-in function id of a name (compared case-insensitively), -1 when not built in.
int BuiltinId(std::string_view name);
/// The id of GETDATE, which is built in even without arguments.
extern const int BuiltinGetDate;
/// Computes built-in `id` over the arguments of `node`.
Variant CalculateBuiltin(int id, const TExpNode& node, TExpEvalContext& context);

/// The numeric coercion of the arithmetic operators: a value read as a number after removing thousand
/// separators and currency signs, or 0 when it does not read as one.
double NumericCoercion(const Variant& v);
/// Reads a number with "." as the decimal separator by the library's float rule.
bool TryParseInvariantFloat(std::string_view s, double& out);
/// x to the power y by the library's rule (repeated squaring for integral exponents).
double Power(double base, double exponent);

[[noreturn]] void RaiseSyntaxTreeFault();

} // namespace kv::expr
