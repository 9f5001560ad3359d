#include "TestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kv::test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvimport-test-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot create a temporary directory");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

} // namespace kv::test
