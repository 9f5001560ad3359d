#pragma once

#include <string>
#include <vector>

namespace kv::cli {

/// kvimport preview: the columns a source offers, with their guessed types, and its first rows.
int RunPreview(const std::vector<std::string>& args);
std::string PreviewUsage();

} // namespace kv::cli
