#pragma once

#include <string>
#include <vector>

namespace kv::cli {

/// kvimport zip: what a zip archive holds ("zip list ARCHIVE").
int RunZip(const std::vector<std::string>& args);
std::string ZipUsage();

} // namespace kv::cli
