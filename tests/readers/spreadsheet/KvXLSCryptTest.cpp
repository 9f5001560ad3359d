// FILEPASS data made here: cut short, damaged or of no scheme we know, and XOR passwords in their code page.
// KvXLSCorpusTest decrypts the shared corpus's workbooks of every scheme.

#include "readers/spreadsheet/KvXLSCrypt.h"

#include "platform/FormatError.h"
#include "support/CompoundFileBuilder.h"

#include <gtest/gtest.h>

#include <tuple>

namespace kv {
namespace {

using test::U16, test::U32;

std::string CryptoApiFilePass(uint32_t algorithm, uint32_t hash, uint32_t keyBits, uint32_t saltSize = 16,
                              int headerSizeChange = 0) {
    const std::string header = U32(0x0C) + U32(0) + U32(algorithm) + U32(hash) + U32(keyBits) + U32(1) +
                               U32(0) + U32(0) + U16('X') + U16(0);
    return U16(1) + U16(4) + U16(2) + U32(0x0C) +
           U32(static_cast<uint32_t>(header.size() + headerSizeChange)) + header + U32(saltSize) +
           std::string(32, 'Z') + U32(20) + std::string(20, 'Z');
}

TEST(XLSCrypt, FilePassLayouts) {
    const std::string api = CryptoApiFilePass(0x6801, 0x8004, 128),
                      rc4 = U16(1) + U16(1) + U16(1) + std::string(48, 'Z');
    // The outcome: "truncated", "damaged", "none" (no scheme we know) or the description.
    const std::vector<std::tuple<const char*, bool, std::string, std::string>> cases = {
        {"BIFF5 XOR cut", false, "\x4A\x51\x1A", "truncated"},
        {"BIFF8 empty", true, "", "truncated"},
        {"BIFF8 XOR type only", true, U16(0), "truncated"},
        {"RC4 verifier hash cut", true, rc4.substr(0, 53), "truncated"},
        {"RC4 version 1.2", true, U16(1) + U16(1) + U16(2) + std::string(48, 'Z'), "none"},
        {"unknown type", true, U16(2) + std::string(60, 'Z'), "none"},
        {"CryptoAPI key size 0", true, CryptoApiFilePass(0x6801, 0x8004, 0), "RC4 CryptoAPI, 40-bit key"},
        {"CryptoAPI 56-bit", true, CryptoApiFilePass(0x6801, 0x8004, 56), "RC4 CryptoAPI, 56-bit key"},
        {"CryptoAPI default algorithms", true, CryptoApiFilePass(0, 0, 128), "RC4 CryptoAPI, 128-bit key"},
        {"CryptoAPI AES", true, CryptoApiFilePass(0x660E, 0x8004, 128), "none"},
        {"CryptoAPI header beyond the record", true, CryptoApiFilePass(0x6801, 0x8004, 128, 16, 1000),
         "truncated"},
        {"CryptoAPI verifier hash cut", true, api.substr(0, api.size() - 1), "truncated"},
        {"CryptoAPI header of 16 bytes", true, CryptoApiFilePass(0x6801, 0x8004, 128, 16, -20), "damaged"},
        {"CryptoAPI 200-bit key", true, CryptoApiFilePass(0x6801, 0x8004, 200), "damaged"},
        {"CryptoAPI salt of 8 bytes", true, CryptoApiFilePass(0x6801, 0x8004, 128, 8), "damaged"},
    };
    constexpr uint64_t kAt = 1000;
    for (const auto& [name, biff8, data, expected] : cases) {
        SCOPED_TRACE(name);
        std::string outcome;
        try {
            auto d = TKvBIFFDecryptor::FromFilePass(data, biff8, kAt);
            outcome = d ? d->Description() : "none";
        } catch (const EKvFormatError& e) {
            outcome = e.Kind() == fekTruncated ? "truncated" : "damaged";
            EXPECT_EQ(e.Format(), "Excel");
            EXPECT_GE(e.Offset(), kAt);
            EXPECT_LE(e.Offset(), kAt + data.size());
        }
        EXPECT_EQ(outcome, expected);
    }
}

TEST(XLSCrypt, XorPasswordsAreTakenInWindows1252) {
    // The key and verifier of the bytes "Gr\xFC\xDF" "e\x80": the euro sign is 0x80 there, not in Latin-1.
    auto d = TKvBIFFDecryptor::FromFilePass(U16(0) + U16(0x7E23) + U16(0xE9BB), true, 0);
    EXPECT_FALSE(d->Verify("Grüße"));
    EXPECT_FALSE(d->Verify("Grusse€"));
    EXPECT_TRUE(d->Verify("Grüße€"));
}

} // namespace
} // namespace kv
