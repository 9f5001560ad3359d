#pragma once
// Streams: sequential and random access to bytes in files and memory. Readers take a TStream& so that
// tests and fuzzers can feed them memory.

#include "platform/Classes.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kv {

enum TSeekOrigin : uint8_t { soBeginning, soCurrent, soEnd };

/// File open modes; the share modes are accepted for compatibility and have no effect on POSIX.
constexpr uint16_t fmOpenRead = 0x0000;
constexpr uint16_t fmOpenWrite = 0x0001;
constexpr uint16_t fmOpenReadWrite = 0x0002;
constexpr uint16_t fmShareCompat = 0x0000;
constexpr uint16_t fmShareExclusive = 0x0010;
constexpr uint16_t fmShareDenyWrite = 0x0020;
constexpr uint16_t fmShareDenyRead = 0x0030;
constexpr uint16_t fmShareDenyNone = 0x0040;
constexpr uint16_t fmCreate = 0xFF00;

/// A stream of bytes.
class TStream : public TObject {
public:
    /// Reads up to `count` bytes; returns how many were read (0 at the end).
    virtual size_t Read(void* buffer, size_t count) = 0;
    /// Writes `count` bytes; returns how many were written.
    virtual size_t Write(const void* buffer, size_t count) = 0;
    /// Moves the position; returns the new position.
    virtual int64_t Seek(int64_t offset, TSeekOrigin origin) = 0;
    virtual int64_t Size();
    int64_t Position() { return Seek(0, soCurrent); }
    void SetPosition(int64_t position) { Seek(position, soBeginning); }

    /// Reads exactly `count` bytes or raises EReadError "Stream read error".
    void ReadBuffer(void* buffer, size_t count);
    /// Reads until `count` bytes or the end, whatever each Read hands out (a pipe or a socket may hand
    /// out less than asked before its end); returns how many were read.
    size_t ReadUpTo(void* buffer, size_t count);
    /// Writes exactly `count` bytes or raises EWriteError "Stream write error".
    void WriteBuffer(const void* buffer, size_t count);
    void WriteString(std::string_view s) { WriteBuffer(s.data(), s.size()); }
    /// Up to `count` bytes from the position (fewer at the end).
    std::string ReadString(size_t count);
    /// Everything from the position to the end.
    std::string ReadAll();
    /// Copies `count` bytes of `source` from its position (all of it from the start when `count` is 0).
    int64_t CopyFrom(TStream& source, int64_t count);
    std::string ClassName() const override { return "TStream"; }
};

/// A file opened with one of the fm modes. Opening fails with EFOpenError "Cannot open file "%s". %s",
/// creating with EFCreateError "Cannot create file "%s". %s".
class TFileStream : public TStream {
public:
    TFileStream(const std::string& fileName, uint16_t mode);
    ~TFileStream() override;
    TFileStream(const TFileStream&) = delete;
    TFileStream& operator=(const TFileStream&) = delete;

    size_t Read(void* buffer, size_t count) override;
    size_t Write(const void* buffer, size_t count) override;
    int64_t Seek(int64_t offset, TSeekOrigin origin) override;
    int64_t Size() override;
    const std::string& FileName() const { return fileName_; }
    int Handle() const { return fd_; }
    std::string ClassName() const override { return "TFileStream"; }

private:
    std::string fileName_;
    int fd_ = -1;
};

/// Bytes held in memory.
class TMemoryStream : public TStream {
public:
    TMemoryStream() = default;
    explicit TMemoryStream(std::string bytes) : data_(std::move(bytes)) {}

    size_t Read(void* buffer, size_t count) override;
    size_t Write(const void* buffer, size_t count) override;
    int64_t Seek(int64_t offset, TSeekOrigin origin) override;
    int64_t Size() override { return static_cast<int64_t>(data_.size()); }
    void SetSize(size_t size);
    void Clear();
    const char* Memory() const { return data_.data(); }
    /// The bytes held.
    const std::string& Bytes() const { return data_; }
    void LoadFromStream(TStream& stream);
    void LoadFromFile(const std::string& fileName);
    void SaveToFile(const std::string& fileName) const;
    std::string ClassName() const override { return "TMemoryStream"; }

protected:
    std::string data_;
    size_t position_ = 0;
};

/// A memory stream made from and read as text.
class TStringStream : public TMemoryStream {
public:
    explicit TStringStream(std::string text = {}) : TMemoryStream(std::move(text)) {}
    const std::string& DataString() const { return data_; }
    std::string ClassName() const override { return "TStringStream"; }
};

/// True when `fileName` names an existing regular file.
bool FileExists(const std::string& fileName);
/// Reads a whole file; EFOpenError when it cannot be opened.
std::string ReadFileBytes(const std::string& fileName);

} // namespace kv
