#pragma once

#include <string>
#include <vector>

namespace kv::cli {

/// kvimport import: one source into a table of an SQLite database.
int RunImport(const std::vector<std::string>& args);
/// kvimport run: a saved specification.
int RunSpecification(const std::vector<std::string>& args);

} // namespace kv::cli
