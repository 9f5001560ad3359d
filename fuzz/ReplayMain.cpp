// Runs a fuzz target over files without libFuzzer: the seeds and every kept crash input are replayed by
// ctest, under the sanitizers too.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    int files = 0;
    for (int i = 1; i < argc; ++i) {
        std::vector<std::filesystem::path> paths;
        if (std::filesystem::is_directory(argv[i])) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i]))
                if (entry.is_regular_file()) paths.push_back(entry.path());
        } else {
            paths.emplace_back(argv[i]);
        }
        for (const auto& path : paths) {
            std::ifstream in(path, std::ios::binary);
            std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
            ++files;
        }
    }
    std::printf("replayed %d inputs\n", files);
    return 0;
}
