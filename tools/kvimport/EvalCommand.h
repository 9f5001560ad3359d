#pragma once

#include <string>
#include <vector>

namespace kv::cli {

/// kvimport eval: evaluates one expression and prints its value.
int RunEval(const std::vector<std::string>& args);
extern const char* const EvalUsage;

} // namespace kv::cli
