#include "ZipCommand.h"

#include "CommandLine.h"
#include "platform/Format.h"
#include "readers/archive/KvZipReader.h"

#include <algorithm>
#include <iostream>

namespace kv::cli {

std::string ZipUsage() {
    return "Usage: kvimport zip list ARCHIVE\n"
           "\n"
           "Lists the members of a zip archive: size, compressed size, compression method, the time of\n"
           "the last change as the archive stores it (local time, to 2 seconds) and name, then the totals\n"
           "and the archive comment. Stored and deflated members can be read; the method column names any\n"
           "other, and encrypted members are marked.\n"
           "\n"
           "Example:\n"
           "  kvimport zip list exports.zip\n";
}

namespace {

std::string MethodText(const TKvZipEntry& e) {
    const std::string_view name = KvZipMethodName(e.Method);
    std::string text = name.empty() ? "method " + std::to_string(e.Method) : std::string(name);
    return e.IsEncrypted() ? text + ", encrypted" : text;
}

std::string DateText(const TKvZipEntry& e) {
    const int month = (e.DosDate >> 5) & 15, day = e.DosDate & 31;
    if (month < 1 || month > 12 || day < 1) return "-";
    return Format("%.4d-%.2d-%.2d %.2d:%.2d:%.2d", 1980 + (e.DosDate >> 9), month, day, e.DosTime >> 11,
                  (e.DosTime >> 5) & 63, (e.DosTime & 31) * 2);
}

// A name may hold any character: line breaks and other controls are shown as "?", so that one member
// is one line.
std::string NameText(std::string name) {
    for (char& c : name)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return name;
}

std::string Right(const std::string& text, size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string Left(const std::string& text, size_t width) {
    return text + std::string(width - std::min(width, text.size()), ' ');
}

int List(const std::string& archive) {
    const TKvZipReader zip = [&]() -> TKvZipReader {
        try {
            return TKvZipReader(archive);
        } catch (const EFOpenError&) {
            throw;
        } catch (const Exception& e) {
            throw Exception(archive + ": " + e.what());
        }
    }();
    uint64_t size = 0, compressed = 0;
    size_t sizeWidth = 4, compressedWidth = 10, methodWidth = 6;
    for (const TKvZipEntry& e : zip.Entries()) {
        size += e.UncompressedSize;
        compressed += e.CompressedSize;
        methodWidth = std::max(methodWidth, MethodText(e).size());
    }
    sizeWidth = std::max(sizeWidth, std::to_string(size).size());
    compressedWidth = std::max(compressedWidth, std::to_string(compressed).size());
    std::cout << Right("Size", sizeWidth) << "  " << Right("Compressed", compressedWidth) << "  "
              << Left("Method", methodWidth) << "  " << Left("Modified", 19) << "  Name\n";
    for (const TKvZipEntry& e : zip.Entries())
        std::cout << Right(std::to_string(e.UncompressedSize), sizeWidth) << "  "
                  << Right(std::to_string(e.CompressedSize), compressedWidth) << "  "
                  << Left(MethodText(e), methodWidth) << "  " << Left(DateText(e), 19) << "  "
                  << NameText(e.Name) << '\n';
    const size_t count = zip.Entries().size();
    std::cout << std::string(sizeWidth, '-') << "  " << std::string(compressedWidth, '-') << '\n'
              << Right(std::to_string(size), sizeWidth) << "  "
              << Right(std::to_string(compressed), compressedWidth) << "  " << count
              << (count == 1 ? " member" : " members") << '\n';
    if (!zip.Comment().empty()) std::cout << "Comment: " << zip.Comment() << '\n';
    return ExitOk;
}

} // namespace

int RunZip(const std::vector<std::string>& args) {
    ArgReader reader(args);
    std::vector<std::string> positionals;
    while (!reader.AtEnd()) {
        if (!reader.NextIsOption()) {
            if (!reader.AtEnd()) positionals.push_back(reader.TakePositional());
            continue;
        }
        const std::string option = reader.TakeOption();
        if (option == "help" || option == "h") throw HelpRequested();
        throw UsageError("unknown option --" + option + " for zip");
    }
    if (positionals.empty()) throw UsageError("zip needs a subcommand: list");
    if (positionals[0] != "list") throw UsageError("unknown zip subcommand '" + positionals[0] + "'");
    if (positionals.size() != 2)
        throw UsageError(positionals.size() < 2 ? "zip list needs an ARCHIVE" : "zip list takes one ARCHIVE");
    return List(positionals[1]);
}

} // namespace kv::cli
