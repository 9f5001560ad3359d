#pragma once
// TDBF: reads an xBase table (the dBase III to dBase VII and FoxPro families) and its memo file into
// sheet 0, one row per record. Opening reads only the header and the field descriptors and keeps the
// stream; each LoadRecord then reads the next record, so a table of any size streams through.

#include "cells/KvCells.h"
#include "platform/Encoding.h"
#include "platform/Streams.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kv {

class TKvBinaryReader;

/// The table versions, found from the first header byte. Several share a byte; the first in this order
/// wins, so dBase4 and dBase7 are never detected (their tables read as dBase3 and dBase5).
enum TDBFVersion : uint8_t {
    dBase3,            ///< 0x03, and any byte not listed
    dBase3Memo,        ///< 0x83
    dBase3Plus,        ///< 0x2F
    dBase3PlusMemo,    ///< 0x8A
    FoxPro,            ///< 0x05
    FoxProMemo,        ///< 0xF5
    dBase4,            ///< 0x03
    dBase4Memo,        ///< 0x8B
    VFP3,              ///< 0x30: a 263-byte backlink area follows the descriptors
    dBase5,            ///< 0x04: 48-byte descriptors after a 68-byte header
    dBase7,            ///< 0x04
    dBase7Memo,        ///< 0x8C
    FoxBASE1,          ///< 0x02
    FoxBASE2,          ///< 0xFB
    VFP3AutoIncrement, ///< 0x31
    HyperSix,          ///< 0xE5
    VFP3Binary,        ///< 0x42
    dBase4SQL,         ///< 0x62
    dBase4SQLSys,      ///< 0x82
    FoxPro2            ///< 0xFA
};

/// The memo file layout the user chooses (a FoxPro table always reads .fpt).
enum TDBFMemoType : uint8_t {
    dmDBT, ///< .dbt, block size little-endian at byte 20
    dmFPT, ///< .fpt, big-endian block size and lengths
    dmKvT  ///< .kvt, laid out as .dbt
};

/// One field as its descriptor declares it.
struct TDBFField {
    std::string Name; ///< UTF-8, up to the first NUL (cut to 10 characters in 48-byte descriptors)
    char Type = 'C';  ///< the type character
    int Offset = 0;   ///< where the field starts in the record (the status byte is byte 0)
    int Length = 0;   ///< bytes in the record
    int Decimals = 0; ///< the decimal-count byte
};

/// The xBase table reader.
///
/// Text ("C" fields, memos, field names) is decoded from the table's code page, which the language
/// driver byte names (SetCodePage overrides it). Damaged headers raise EKvFormatError naming "DBF" and the
/// byte; a record count larger than the file holds is cut to the whole records present, with a warning.
class TDBF : public TSpreadSheetFile {
public:
    explicit TDBF(TComponent* owner = nullptr);
    ~TDBF() override;
    TDBF(const TDBF&) = delete;
    TDBF& operator=(const TDBF&) = delete;

    /// The version the last load found (dBase3 before loading).
    TDBFVersion DBFVersion() const { return version_; }
    void SetDBFVersion(TDBFVersion v) { version_ = v; }
    TDBFMemoType DBFMemoType() const { return memoType_; }
    void SetDBFMemoType(TDBFMemoType v) { memoType_ = v; }

    /// The code page text is decoded from: the override, else the language driver's, 1252 when the
    /// table names none. One this system cannot decode falls back to 852 (for the Polish DOS code pages
    /// 620 and 895) or 1252, with a warning.
    int CodePage() const { return decoder_.CodePage(); }
    /// 0 takes the code page from the header; any other number overrides it, for tables that name the
    /// wrong one. Takes effect at the next load.
    void SetCodePage(int codePage) { codePageOverride_ = codePage; }
    /// The code page the language driver byte names (0 when the byte is 0 or unknown).
    static int LanguageDriverCodePage(uint8_t driver);

    /// Reads memos from `stream` (not owned) instead of the file beside the table; nullptr goes back
    /// to the file. For tables loaded from a stream with no file name, and for tests.
    void SetMemoStream(TStream* stream) { memoOverride_ = stream; }

    /// The fields of the last load, as their descriptors declare them.
    const std::vector<TDBFField>& Fields() const { return fields_; }
    int FieldCount() const { return static_cast<int>(fields_.size()); }
    /// The raw version byte of the last load.
    uint8_t VersionByte() const { return static_cast<uint8_t>(header_[0]); }

    /// Header byte 15: the records are not decrypted.
    bool IsEncrypted() override { return header_[15] != 0; }
    void ReadBLOBValue(int64_t offset, int64_t size, std::string& text) override;
    void LoadFromFile(const std::string& fileName) override;
    void LoadFromStream(TStream& stream) override;
    void BeforeLoad() override;
    void AfterLoad() override;
    bool LoadRecord(int index) override;

    std::vector<TKvIDeclaredField> DeclaredFields() const override;
    int64_t RecordCount() const override { return loaded_ ? recordCount_ : -1; }
    std::vector<std::pair<std::string, std::string>> FileProperties() const override;

    /// "String", "Number", "Date", ...; "<unknown>" for a type without a name.
    static std::string GetStrFieldType(char type);
    /// The description of a version byte ("dBase III (memo)"); "" for a byte not in the table.
    static std::string GetStrFileType(uint8_t versionByte);
    /// The version a header byte selects (dBase3 for a byte not in the table).
    static TDBFVersion VersionOf(uint8_t versionByte);

    std::string ClassName() const override { return "TDBF"; }

private:
    void ReadHeader();
    void WarnOfKeptDecodings();
    void DecodeRecord(int row, std::string_view record);
    /// The memo file beside the table for the version and memo type; "" when there is none.
    std::string MemoFileName(std::string_view hyperSixExtension = {}) const;
    /// Opens the memo file and reads its header on first use; false when there is none.
    bool OpenMemo(std::string_view hyperSixExtension);
    void CloseMemo();

    TDBFVersion version_ = dBase3;
    TDBFMemoType memoType_ = dmDBT;
    int codePageOverride_ = 0;
    TKvCodePageDecoder decoder_;

    std::string header_ = std::string(32, '\0'); ///< the 32-byte file header as read
    std::vector<TDBFField> fields_;
    int64_t recordCount_ = 0; ///< the header's count, cut to the whole records the file holds
    int recordSize_ = 0;
    uint64_t dataStart_ = 0;
    bool loaded_ = false;

    std::unique_ptr<TStream> ownedData_; ///< the file LoadFromFile opened, kept in record mode
    std::unique_ptr<TKvBinaryReader> data_;
    int64_t recordsRead_ = 0; ///< records read since the header, for error messages
    std::string record_;      ///< the record buffer, reused

    TStream* memoOverride_ = nullptr;
    std::unique_ptr<TStream> memoFile_;
    std::unique_ptr<TKvBinaryReader> memo_;
    bool memoTried_ = false; ///< the memo file was looked for (and is memo_, or missing)
    uint32_t memoBlockSize_ = 512;
};

} // namespace kv
