#pragma once
// Decryption of password-protected BIFF workbooks (the FILEPASS record): XOR obfuscation, RC4, and RC4
// CryptoAPI. A decryptor is made from the FILEPASS data, verified with a password, then decrypts each
// record's data in place as the record loop reads it.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace kv {

enum TKvBIFFEncryption : uint8_t { beXor, beRC4, beRC4CryptoAPI };

class TKvBIFFDecryptor {
public:
    /// Reads a FILEPASS record's data. `biff8` selects the layout that begins with an encryption type
    /// word (BIFF8); before BIFF8 the record holds an XOR key and verifier only. `offset` is where the
    /// data lies in the workbook stream, for errors. A record too short for its layout raises
    /// EKvFormatError ("Excel"); a scheme none of the three gives nullptr.
    static std::unique_ptr<TKvBIFFDecryptor> FromFilePass(std::string_view data, bool biff8, uint64_t offset);
    virtual ~TKvBIFFDecryptor() = default;

    virtual TKvBIFFEncryption Kind() const = 0;
    /// What a user is told of the scheme: "XOR obfuscation", "RC4, 40-bit key", "RC4 CryptoAPI, 128-bit key".
    virtual std::string Description() const = 0;
    /// True when `password` (UTF-8) opens the workbook; the decryptor is then keyed with it. XOR takes the
    /// password in Windows-1252 (1 to 15 bytes), RC4 in UTF-16 (at most 255 code units); a password outside
    /// those limits is refused. A wrong password raises nothing and leaves the decryptor as it was.
    virtual bool Verify(const std::string& password) = 0;
    /// Decrypts in place the data of a record of type `recordType` whose data begins at `streamOffset` in
    /// the workbook stream (just after its 4-byte header). Records that are never encrypted (BOF, FILEPASS,
    /// ...) and the stream position field of BOUNDSHEET are left as they are. Records may come in any
    /// order. Called before a password was verified, raises Exception.
    virtual void DecryptRecord(uint16_t recordType, uint64_t streamOffset, char* data, size_t size) = 0;
};

} // namespace kv
