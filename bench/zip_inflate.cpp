// Writes one member of a zip archive to standard output through the library's reader: streamed in 1 MiB
// reads, or with --whole read into memory first. The side-by-side comparison with `unzip -p` is
// bench/compare.py zip.

#include "readers/archive/KvZipReader.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4 || (argc == 4 && std::strcmp(argv[3], "--whole") != 0)) {
        std::fprintf(stderr, "usage: zip_inflate ARCHIVE MEMBER [--whole]\n");
        return 2;
    }
    try {
        const kv::TKvZipReader zip{std::string(argv[1])};
        const kv::TKvZipEntry* entry = zip.Find(argv[2]);
        if (!entry) {
            std::fprintf(stderr, "%s: no member \"%s\"\n", argv[1], argv[2]);
            return 1;
        }
        if (argc == 4) {
            const std::string content = zip.ReadMember(*entry);
            std::fwrite(content.data(), 1, content.size(), stdout);
        } else {
            const std::unique_ptr<kv::TStream> member = zip.OpenMember(*entry);
            std::vector<char> buffer(1 << 20);
            for (size_t n; (n = member->Read(buffer.data(), buffer.size())) > 0;)
                std::fwrite(buffer.data(), 1, n, stdout);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}
