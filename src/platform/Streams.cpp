#include "platform/Streams.h"

#include "platform/Exceptions.h"
#include "platform/SysUtils.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kv {

int64_t TStream::Size() {
    int64_t position = Seek(0, soCurrent);
    int64_t size = Seek(0, soEnd);
    Seek(position, soBeginning);
    return size;
}

void TStream::ReadBuffer(void* buffer, size_t count) {
    if (count && Read(buffer, count) != count) throw EReadError("Stream read error");
}

size_t TStream::ReadUpTo(void* buffer, size_t count) {
    size_t done = 0;
    while (done < count) {
        const size_t n = Read(static_cast<char*>(buffer) + done, count - done);
        if (n == 0) break;
        done += n;
    }
    return done;
}

void TStream::WriteBuffer(const void* buffer, size_t count) {
    if (count && Write(buffer, count) != count) throw EWriteError("Stream write error");
}

std::string TStream::ReadString(size_t count) {
    std::string s;
    const int64_t remaining = Size() - Position();
    if (remaining <= 0) return s;
    s.resize(std::min(count, static_cast<size_t>(remaining)));
    s.resize(Read(s.data(), s.size()));
    return s;
}

std::string TStream::ReadAll() {
    std::string s;
    char chunk[65536];
    for (size_t n; (n = Read(chunk, sizeof chunk)) > 0;) s.append(chunk, n);
    return s;
}

int64_t TStream::CopyFrom(TStream& source, int64_t count) {
    if (count == 0) {
        source.SetPosition(0);
        count = source.Size();
    }
    char chunk[65536];
    int64_t copied = 0;
    while (copied < count) {
        size_t n = static_cast<size_t>(std::min<int64_t>(count - copied, sizeof chunk));
        source.ReadBuffer(chunk, n);
        WriteBuffer(chunk, n);
        copied += static_cast<int64_t>(n);
    }
    return copied;
}

// ---- files ----

TFileStream::TFileStream(const std::string& fileName, uint16_t mode) : fileName_(fileName) {
    if ((mode & fmCreate) == fmCreate) {
        fd_ = ::open(fileName.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd_ < 0)
            throw EFCreateError("Cannot create file \"" + fileName + "\". " + SysErrorMessage(errno));
        return;
    }
    int flags = O_CLOEXEC;
    switch (mode & 3) {
    case fmOpenWrite:
        flags |= O_WRONLY;
        break;
    case fmOpenReadWrite:
        flags |= O_RDWR;
        break;
    default:
        flags |= O_RDONLY;
        break;
    }
    fd_ = ::open(fileName.c_str(), flags);
    if (fd_ < 0) throw EFOpenError("Cannot open file \"" + fileName + "\". " + SysErrorMessage(errno));
    struct stat st {};
    if (fstat(fd_, &st) == 0 && S_ISDIR(st.st_mode)) {
        ::close(fd_);
        fd_ = -1;
        throw EFOpenError("Cannot open file \"" + fileName + "\". " + SysErrorMessage(EISDIR));
    }
}

TFileStream::~TFileStream() {
    if (fd_ >= 0) ::close(fd_);
}

size_t TFileStream::Read(void* buffer, size_t count) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::read(fd_, static_cast<char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw EReadError("Stream read error");
        if (n == 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

size_t TFileStream::Write(const void* buffer, size_t count) {
    size_t done = 0;
    while (done < count) {
        ssize_t n = ::write(fd_, static_cast<const char*>(buffer) + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done;
}

int64_t TFileStream::Seek(int64_t offset, TSeekOrigin origin) {
    int whence = origin == soBeginning ? SEEK_SET : origin == soCurrent ? SEEK_CUR : SEEK_END;
    off_t r = ::lseek(fd_, static_cast<off_t>(offset), whence);
    return r < 0 ? -1 : static_cast<int64_t>(r);
}

int64_t TFileStream::Size() {
    struct stat st {};
    if (fstat(fd_, &st) == 0 && S_ISREG(st.st_mode)) return static_cast<int64_t>(st.st_size);
    return TStream::Size();
}

// ---- memory ----

size_t TMemoryStream::Read(void* buffer, size_t count) {
    if (position_ >= data_.size()) return 0;
    size_t n = std::min(count, data_.size() - position_);
    std::memcpy(buffer, data_.data() + position_, n);
    position_ += n;
    return n;
}

size_t TMemoryStream::Write(const void* buffer, size_t count) {
    if (position_ + count > data_.size()) data_.resize(position_ + count);
    std::memcpy(data_.data() + position_, buffer, count);
    position_ += count;
    return count;
}

int64_t TMemoryStream::Seek(int64_t offset, TSeekOrigin origin) {
    int64_t base = origin == soBeginning ? 0
                   : origin == soCurrent ? static_cast<int64_t>(position_)
                                         : static_cast<int64_t>(data_.size());
    int64_t target = base + offset;
    if (target < 0) target = 0;
    position_ = static_cast<size_t>(target);
    return target;
}

void TMemoryStream::SetSize(size_t size) {
    data_.resize(size);
    if (position_ > size) position_ = size;
}

void TMemoryStream::Clear() {
    data_.clear();
    position_ = 0;
}

void TMemoryStream::LoadFromStream(TStream& stream) {
    stream.SetPosition(0);
    data_ = stream.ReadAll();
    position_ = 0;
}

void TMemoryStream::LoadFromFile(const std::string& fileName) {
    data_ = ReadFileBytes(fileName);
    position_ = 0;
}

void TMemoryStream::SaveToFile(const std::string& fileName) const {
    TFileStream file(fileName, fmCreate);
    file.WriteBuffer(data_.data(), data_.size());
}

bool FileExists(const std::string& fileName) {
    struct stat st {};
    return ::stat(fileName.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::string ReadFileBytes(const std::string& fileName) {
    TFileStream file(fileName, fmOpenRead | fmShareDenyNone);
    return file.ReadAll();
}

} // namespace kv
