#include "readers/spreadsheet/KvXLSCrypt.h"

#include "platform/ByteReader.h"
#include "platform/Encoding.h"
#include "platform/Exceptions.h"
#include "platform/FormatError.h"
#include "platform/Utf8.h"

#include <nettle/arcfour.h>
#include <nettle/md5.h>
#include <nettle/sha1.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

namespace kv {

namespace {

constexpr const char* kFormat = "Excel";

// The records a writer leaves plain although they follow FILEPASS: a reader needs them before it has a
// key (BOF, FILEPASS) or they belong to the shared-workbook machinery that opens files unasked.
constexpr uint16_t kNeverEncrypted[] = {
    0x0809, // BOF
    0x002F, // FILEPASS
    0x0194, // USREXCL
    0x0195, // FILELOCK
    0x00E1, // INTERFACEHDR
    0x0196, // RRDINFO
    0x0138, // RRDHEAD
};
constexpr uint16_t kBoundSheet = 0x0085;
/// BOUNDSHEET's stream position of its sheet stays plain, so that sheets can be found without the key.
constexpr size_t kBoundSheetPlain = 4;

/// The bytes at the start of a record's data that are stored plain: all of them for the records above.
size_t PlainPrefix(uint16_t recordType, size_t size) {
    if (std::find(std::begin(kNeverEncrypted), std::end(kNeverEncrypted), recordType) !=
        std::end(kNeverEncrypted))
        return size;
    if (recordType == kBoundSheet) return std::min(size, kBoundSheetPlain);
    return 0;
}

[[noreturn]] void NotKeyed() {
    throw Exception("Excel: a record was decrypted before a password was verified");
}

// ---- XOR obfuscation ------------------------------------------------------------------------------------

constexpr size_t kXorMaxPassword = 15;

constexpr uint8_t kXorPad[15] = {0xBB, 0xFF, 0xFF, 0xBA, 0xFF, 0xFF, 0xB9, 0x80,
                                 0x00, 0xBE, 0x0F, 0x00, 0xBF, 0x0F, 0x00};

/// The key's starting value for each password length (1 to 15).
constexpr uint16_t kXorInitialCode[15] = {0xE1F0, 0x1D0F, 0xCC9C, 0x84C0, 0x110C, 0x0E10, 0xF1CE, 0x313E,
                                          0x1872, 0xE139, 0xD40F, 0x84F9, 0x280C, 0xA96A, 0x4EC3};

/// Seven values per password position (the last character uses the last seven), one per low bit.
constexpr uint16_t kXorMatrix[105] = {
    0xAEFC, 0x4DD9, 0x9BB2, 0x2745, 0x4E8A, 0x9D14, 0x2A09, 0x7B61, 0xF6C2, 0xFDA5, 0xEB6B, 0xC6F7,
    0x9DCF, 0x2BBF, 0x4563, 0x8AC6, 0x05AD, 0x0B5A, 0x16B4, 0x2D68, 0x5AD0, 0x0375, 0x06EA, 0x0DD4,
    0x1BA8, 0x3750, 0x6EA0, 0xDD40, 0xD849, 0xA0B3, 0x5147, 0xA28E, 0x553D, 0xAA7A, 0x44D5, 0x6F45,
    0xDE8A, 0xAD35, 0x4A4B, 0x9496, 0x390D, 0x721A, 0xEB23, 0xC667, 0x9CEF, 0x29FF, 0x53FE, 0xA7FC,
    0x5FD9, 0x47D3, 0x8FA6, 0x0F6D, 0x1EDA, 0x3DB4, 0x7B68, 0xF6D0, 0xB861, 0x60E3, 0xC1C6, 0x93AD,
    0x377B, 0x6EF6, 0xDDEC, 0x45A0, 0x8B40, 0x06A1, 0x0D42, 0x1A84, 0x3508, 0x6A10, 0xAA51, 0x4483,
    0x8906, 0x022D, 0x045A, 0x08B4, 0x1168, 0x76B4, 0xED68, 0xCAF1, 0x85C3, 0x1BA7, 0x374E, 0x6E9C,
    0x3730, 0x6E60, 0xDCC0, 0xA9A1, 0x4363, 0x86C6, 0x1DAD, 0x3331, 0x6662, 0xCCC4, 0x89A9, 0x0373,
    0x06E6, 0x0DCC, 0x1021, 0x2042, 0x4084, 0x8108, 0x1231, 0x2462, 0x48C4};

/// The 16-bit hash of a password of 1 to 15 bytes that FILEPASS stores to check it.
uint16_t XorVerifier(std::string_view password) {
    uint16_t verifier = 0;
    auto step = [&](uint8_t byte) {
        const uint16_t carry = (verifier & 0x4000) ? 1 : 0;
        verifier = static_cast<uint16_t>((((verifier << 1) & 0x7FFF) | carry) ^ byte);
    };
    for (size_t i = password.size(); i-- > 0;) step(static_cast<uint8_t>(password[i]));
    step(static_cast<uint8_t>(password.size()));
    return static_cast<uint16_t>(verifier ^ 0xCE4B);
}

uint16_t XorKey(std::string_view password) {
    uint16_t key = kXorInitialCode[password.size() - 1];
    size_t element = std::size(kXorMatrix) - 1;
    for (size_t i = password.size(); i-- > 0;) {
        uint8_t c = static_cast<uint8_t>(password[i]);
        for (int bit = 0; bit < 7; ++bit, --element) {
            if (c & 0x40) key ^= kXorMatrix[element];
            c = static_cast<uint8_t>(c << 1);
        }
    }
    return key;
}

uint8_t XorRor(uint8_t a, uint8_t b) {
    const uint8_t v = a ^ b;
    return static_cast<uint8_t>((v >> 1) | (v << 7));
}

/// The 16 bytes the data is XORed with: the password then the pad, each byte mixed with the key's low
/// byte at even positions and its high byte at odd ones.
std::array<uint8_t, 16> XorArray(std::string_view password, uint16_t key) {
    const auto high = static_cast<uint8_t>(key >> 8);
    const auto low = static_cast<uint8_t>(key & 0xFF);
    std::array<uint8_t, 16> out{};
    for (size_t i = 0; i < out.size(); ++i) {
        const uint8_t byte =
            i < password.size() ? static_cast<uint8_t>(password[i]) : kXorPad[i - password.size()];
        out[i] = XorRor(byte, i % 2 ? high : low);
    }
    return out;
}

class TXorDecryptor final : public TKvBIFFDecryptor {
public:
    TXorDecryptor(uint16_t key, uint16_t verifier) : key_(key), verifier_(verifier) {}

    TKvBIFFEncryption Kind() const override { return beXor; }
    std::string Description() const override { return "XOR obfuscation"; }

    bool Verify(const std::string& password) override {
        // Excel takes at most 15 characters of the ANSI code page; a longer password was never the one.
        const std::string bytes = Utf8ToCodePage(password, cpWindows1252);
        if (bytes.empty() || bytes.size() > kXorMaxPassword) return false;
        const uint16_t key = XorKey(bytes);
        if (XorVerifier(bytes) != verifier_ || key != key_) return false;
        array_ = XorArray(bytes, key);
        keyed_ = true;
        return true;
    }

    void DecryptRecord(uint16_t recordType, uint64_t streamOffset, char* data, size_t size) override {
        if (!keyed_) NotKeyed();
        // The array index runs with the stream position, shifted by the record's size.
        const uint64_t base = streamOffset + size;
        for (size_t i = PlainPrefix(recordType, size); i < size; ++i) {
            const auto v = static_cast<uint8_t>(static_cast<uint8_t>(data[i]) ^ array_[(base + i) % 16]);
            data[i] = static_cast<char>(static_cast<uint8_t>((v >> 5) | (v << 3)));
        }
    }

private:
    uint16_t key_;
    uint16_t verifier_;
    std::array<uint8_t, 16> array_{};
    bool keyed_ = false;
};

// ---- RC4, both kinds ------------------------------------------------------------------------------------

constexpr uint64_t kRC4BlockSize = 1024;
constexpr size_t kSaltSize = 16;
constexpr size_t kVerifierSize = 16;
constexpr size_t kMaxUtf16Password = 255;

/// The password as UTF-16LE code units; nothing when it holds more than 255 of them.
bool PasswordUtf16(const std::string& password, std::string& out) {
    out.clear();
    for (size_t pos = 0; pos < password.size();) {
        char32_t c = Utf8Decode(password, pos);
        auto unit = [&](uint32_t u) {
            out.push_back(static_cast<char>(u & 0xFF));
            out.push_back(static_cast<char>(u >> 8));
        };
        if (c >= 0x10000) {
            c -= 0x10000;
            unit(0xD800 + (static_cast<uint32_t>(c) >> 10));
            unit(0xDC00 + (static_cast<uint32_t>(c) & 0x3FF));
        } else {
            unit(static_cast<uint32_t>(c));
        }
    }
    return out.size() / 2 <= kMaxUtf16Password;
}

void StoreLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

/// The RC4 stream over the workbook stream: a fresh key for every 1024-byte block, from the block number.
/// The state of the last block used is kept, so a record loop that reads forward keys each block once.
class TRC4Base : public TKvBIFFDecryptor {
public:
    void DecryptRecord(uint16_t recordType, uint64_t streamOffset, char* data, size_t size) override {
        if (!keyed_) NotKeyed();
        const size_t plain = PlainPrefix(recordType, size);
        Crypt(streamOffset + plain, reinterpret_cast<uint8_t*>(data) + plain, size - plain);
    }

protected:
    static constexpr size_t kMaxKey = 16;

    /// The RC4 key of block `block` into `key` (room for kMaxKey bytes); returns its length.
    virtual size_t BlockKey(uint32_t block, uint8_t* key) const = 0;
    /// True when `verifier` (16 bytes) hashes to `hash` under the scheme's digest.
    virtual bool HashMatches(const uint8_t* verifier, const uint8_t* hash) const = 0;

    /// True when the stored verifier and its hash (`size` bytes together), decrypted with block 0's key of
    /// the password being tried, agree.
    bool CheckVerifier(const uint8_t* encrypted, size_t size) {
        std::array<uint8_t, kVerifierSize + SHA1_DIGEST_SIZE> plain{};
        uint8_t key[kMaxKey];
        arcfour_ctx ctx;
        arcfour_set_key(&ctx, BlockKey(0, key), key);
        arcfour_crypt(&ctx, size, plain.data(), encrypted);
        return HashMatches(plain.data(), plain.data() + kVerifierSize);
    }

    void Rekeyed() {
        keyed_ = true;
        haveBlock_ = false;
    }

private:
    void Crypt(uint64_t offset, uint8_t* data, size_t size) {
        while (size > 0) {
            const uint64_t block = offset / kRC4BlockSize;
            const auto within = static_cast<size_t>(offset % kRC4BlockSize);
            if (block > std::numeric_limits<uint32_t>::max())
                throw EKvFormatError(fekDamaged, kFormat, offset,
                                     "the record lies beyond what RC4 can decrypt");
            if (!haveBlock_ || block != block_ || within < blockPos_) {
                uint8_t key[kMaxKey];
                arcfour_set_key(&ctx_, BlockKey(static_cast<uint32_t>(block), key), key);
                block_ = block;
                blockPos_ = 0;
                haveBlock_ = true;
            }
            // The keystream runs over the record headers and plain bytes too: skip to the offset.
            uint8_t skip[64];
            while (blockPos_ < within) {
                const size_t n = std::min(within - blockPos_, sizeof skip);
                arcfour_crypt(&ctx_, n, skip, skip);
                blockPos_ += n;
            }
            const size_t n = std::min<uint64_t>(size, kRC4BlockSize - within);
            arcfour_crypt(&ctx_, n, data, data);
            blockPos_ += n;
            offset += n;
            data += n;
            size -= n;
        }
    }

    bool keyed_ = false;
    bool haveBlock_ = false;
    uint64_t block_ = 0;
    size_t blockPos_ = 0;
    arcfour_ctx ctx_{};
};

/// RC4 with MD5 (version 1.1): a 40-bit password hash, salted, widened by MD5 with each block number.
class TRC4Decryptor final : public TRC4Base {
public:
    TRC4Decryptor(std::string_view salt, std::string_view verifier, std::string_view verifierHash) {
        std::memcpy(salt_.data(), salt.data(), kSaltSize);
        std::memcpy(encrypted_.data(), verifier.data(), kVerifierSize);
        std::memcpy(encrypted_.data() + kVerifierSize, verifierHash.data(), MD5_DIGEST_SIZE);
    }

    TKvBIFFEncryption Kind() const override { return beRC4; }
    std::string Description() const override { return "RC4, 40-bit key"; }

    bool Verify(const std::string& password) override {
        std::string utf16;
        if (!PasswordUtf16(password, utf16)) return false;
        uint8_t h0[MD5_DIGEST_SIZE];
        md5_ctx md5;
        md5_init(&md5);
        md5_update(&md5, utf16.size(), reinterpret_cast<const uint8_t*>(utf16.data()));
        md5_digest(&md5, sizeof h0, h0);
        // Sixteen copies of the truncated hash and the salt.
        md5_init(&md5);
        for (int i = 0; i < 16; ++i) {
            md5_update(&md5, kTruncated, h0);
            md5_update(&md5, kSaltSize, salt_.data());
        }
        uint8_t h1[MD5_DIGEST_SIZE];
        md5_digest(&md5, sizeof h1, h1);

        const auto saved = base_;
        std::memcpy(base_.data(), h1, kTruncated);
        if (!CheckVerifier(encrypted_.data(), encrypted_.size())) {
            base_ = saved;
            return false;
        }
        Rekeyed();
        return true;
    }

protected:
    size_t BlockKey(uint32_t block, uint8_t* key) const override {
        uint8_t input[kTruncated + 4];
        std::memcpy(input, base_.data(), kTruncated);
        StoreLE32(input + kTruncated, block);
        md5_ctx md5;
        md5_init(&md5);
        md5_update(&md5, sizeof input, input);
        md5_digest(&md5, MD5_DIGEST_SIZE, key);
        return MD5_DIGEST_SIZE;
    }

    bool HashMatches(const uint8_t* verifier, const uint8_t* hash) const override {
        uint8_t digest[MD5_DIGEST_SIZE];
        md5_ctx md5;
        md5_init(&md5);
        md5_update(&md5, kVerifierSize, verifier);
        md5_digest(&md5, sizeof digest, digest);
        return std::memcmp(digest, hash, sizeof digest) == 0;
    }

private:
    static constexpr size_t kTruncated = 5;
    std::array<uint8_t, kSaltSize> salt_{};
    std::array<uint8_t, kVerifierSize + MD5_DIGEST_SIZE> encrypted_{};
    std::array<uint8_t, kTruncated> base_{};
};

/// RC4 CryptoAPI: SHA-1 of salt and password, then SHA-1 with each block number, cut to the key size.
class TRC4CryptoAPIDecryptor final : public TRC4Base {
public:
    TRC4CryptoAPIDecryptor(uint32_t keyBits, std::string_view salt, std::string_view verifier,
                           std::string_view verifierHash)
        : keyBits_(keyBits) {
        std::memcpy(salt_.data(), salt.data(), kSaltSize);
        std::memcpy(encrypted_.data(), verifier.data(), kVerifierSize);
        std::memcpy(encrypted_.data() + kVerifierSize, verifierHash.data(), SHA1_DIGEST_SIZE);
    }

    TKvBIFFEncryption Kind() const override { return beRC4CryptoAPI; }
    std::string Description() const override {
        return "RC4 CryptoAPI, " + std::to_string(keyBits_) + "-bit key";
    }

    bool Verify(const std::string& password) override {
        std::string utf16;
        if (!PasswordUtf16(password, utf16)) return false;
        const auto saved = h0_;
        sha1_ctx sha;
        sha1_init(&sha);
        sha1_update(&sha, kSaltSize, salt_.data());
        sha1_update(&sha, utf16.size(), reinterpret_cast<const uint8_t*>(utf16.data()));
        sha1_digest(&sha, h0_.size(), h0_.data());
        if (!CheckVerifier(encrypted_.data(), encrypted_.size())) {
            h0_ = saved;
            return false;
        }
        Rekeyed();
        return true;
    }

protected:
    size_t BlockKey(uint32_t block, uint8_t* key) const override {
        uint8_t counter[4];
        StoreLE32(counter, block);
        uint8_t digest[SHA1_DIGEST_SIZE];
        sha1_ctx sha;
        sha1_init(&sha);
        sha1_update(&sha, h0_.size(), h0_.data());
        sha1_update(&sha, sizeof counter, counter);
        sha1_digest(&sha, sizeof digest, digest);
        const size_t bytes = keyBits_ / 8;
        // A 40-bit key is used as 128 bits, the rest zero, as the export-grade providers did.
        if (keyBits_ == 40) {
            std::memset(key, 0, kMaxKey);
            std::memcpy(key, digest, bytes);
            return kMaxKey;
        }
        std::memcpy(key, digest, bytes);
        return bytes;
    }

    bool HashMatches(const uint8_t* verifier, const uint8_t* hash) const override {
        uint8_t digest[SHA1_DIGEST_SIZE];
        sha1_ctx sha;
        sha1_init(&sha);
        sha1_update(&sha, kVerifierSize, verifier);
        sha1_digest(&sha, sizeof digest, digest);
        return std::memcmp(digest, hash, sizeof digest) == 0;
    }

private:
    uint32_t keyBits_;
    std::array<uint8_t, kSaltSize> salt_{};
    std::array<uint8_t, kVerifierSize + SHA1_DIGEST_SIZE> encrypted_{};
    std::array<uint8_t, SHA1_DIGEST_SIZE> h0_{};
};

constexpr uint32_t kAlgRC4 = 0x6801;
constexpr uint32_t kAlgSHA1 = 0x8004;
/// The fixed fields of the CryptoAPI EncryptionHeader before the provider name.
constexpr uint32_t kHeaderFixedSize = 32;

std::unique_ptr<TKvBIFFDecryptor> ReadCryptoAPI(TByteReader& r) {
    r.ReadU32LE(); // flags, repeated in the header
    const size_t headerAt = r.Position();
    const uint32_t headerSize = r.ReadU32LE();
    if (headerSize < kHeaderFixedSize) r.CorruptAt(headerAt, "the encryption header is too short");
    const uint64_t headerOffset = r.FileOffset();
    TByteReader header(r.ReadBytes(headerSize), kFormat, headerOffset, "record");
    header.ReadU32LE(); // flags
    header.ReadU32LE(); // extra size, always 0
    const uint32_t algorithm = header.ReadU32LE();
    const uint32_t hash = header.ReadU32LE();
    const size_t keySizeAt = header.Position();
    uint32_t keyBits = header.ReadU32LE();
    // Only RC4 with SHA-1 belongs in a workbook; 0 names the provider's default, which is that.
    if ((algorithm != kAlgRC4 && algorithm != 0) || (hash != kAlgSHA1 && hash != 0)) return nullptr;
    if (keyBits == 0) keyBits = 40;
    if (keyBits < 40 || keyBits > 128 || keyBits % 8 != 0)
        header.CorruptAt(keySizeAt, "an RC4 key of " + std::to_string(keyBits) + " bits");

    const size_t saltSizeAt = r.Position();
    if (r.ReadU32LE() != kSaltSize) r.CorruptAt(saltSizeAt, "the salt is not 16 bytes");
    const std::string_view salt = r.ReadBytes(kSaltSize);
    const std::string_view verifier = r.ReadBytes(kVerifierSize);
    const size_t hashSizeAt = r.Position();
    if (r.ReadU32LE() != SHA1_DIGEST_SIZE) r.CorruptAt(hashSizeAt, "the verifier hash is not 20 bytes");
    const std::string_view verifierHash = r.ReadBytes(SHA1_DIGEST_SIZE);
    return std::make_unique<TRC4CryptoAPIDecryptor>(keyBits, salt, verifier, verifierHash);
}

} // namespace

std::unique_ptr<TKvBIFFDecryptor> TKvBIFFDecryptor::FromFilePass(std::string_view data, bool biff8,
                                                                 uint64_t offset) {
    TByteReader r(data, kFormat, offset, "record");
    if (!biff8) {
        const uint16_t key = r.ReadU16LE();
        return std::make_unique<TXorDecryptor>(key, r.ReadU16LE());
    }
    const uint16_t type = r.ReadU16LE();
    if (type == 0) {
        const uint16_t key = r.ReadU16LE();
        return std::make_unique<TXorDecryptor>(key, r.ReadU16LE());
    }
    if (type != 1) return nullptr;
    const uint16_t major = r.ReadU16LE();
    const uint16_t minor = r.ReadU16LE();
    if (major == 1 && minor == 1) {
        const std::string_view salt = r.ReadBytes(kSaltSize);
        const std::string_view verifier = r.ReadBytes(kVerifierSize);
        return std::make_unique<TRC4Decryptor>(salt, verifier, r.ReadBytes(MD5_DIGEST_SIZE));
    }
    if (major >= 2 && major <= 4 && minor == 2) return ReadCryptoAPI(r);
    return nullptr;
}

} // namespace kv
