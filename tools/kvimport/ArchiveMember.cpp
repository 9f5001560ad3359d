#include "ArchiveMember.h"

#include "SourceKinds.h"
#include "platform/Exceptions.h"
#include "platform/Streams.h"
#include "platform/SysUtils.h"
#include "readers/archive/KvZipReader.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

namespace kv::cli {

namespace {

namespace fs = std::filesystem;

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string ExtensionOf(const std::string& name) {
    return Lower(fs::path(name).extension().string());
}

// The member's own name without its folders, or a stand-in where that name could not be a file's.
std::string LeafName(const TKvZipEntry& entry) {
    std::string name = entry.Name;
    const size_t slash = name.find_last_of("/\\");
    if (slash != std::string::npos) name.erase(0, slash + 1);
    if (name.empty() || name == "." || name == "..") name = "member" + ExtensionOf(entry.Name);
    return name;
}

std::string Stem(const std::string& name) {
    const size_t dot = name.rfind('.');
    return Lower(dot == std::string::npos ? name : name.substr(0, dot));
}

std::string Folder(const std::string& name) {
    const size_t slash = name.find_last_of("/\\");
    return slash == std::string::npos ? std::string() : Lower(name.substr(0, slash));
}

// A folder of our own in shared memory (the temporary folder where there is none), gone with the source.
class MemberFolder {
public:
    MemberFolder() {
        std::error_code error;
        const fs::path base =
            fs::is_directory("/dev/shm", error) ? fs::path("/dev/shm") : fs::temp_directory_path();
        std::string pattern = (base / "kvimport-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            throw EFCreateError("Cannot create file \"" + pattern + "\". " + SysErrorMessage(errno));
        path_ = pattern;
    }
    ~MemberFolder() {
        std::error_code error;
        fs::remove_all(path_, error);
    }
    MemberFolder(const MemberFolder&) = delete;
    MemberFolder& operator=(const MemberFolder&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

// The source of the member, which keeps the folder the member lies in until the source is gone.
class MemberSource : public SourceSetup {
public:
    MemberSource(std::unique_ptr<MemberFolder> folder, std::unique_ptr<SourceSetup> source,
                 std::string member)
        : folder_(std::move(folder)), source_(std::move(source)), member_(std::move(member)) {}

    TKvImportBaseComponent& Component() override { return source_->Component(); }
    std::vector<std::string> SpecificationLines() const override { return source_->SpecificationLines(); }
    void Preview(int64_t rows, const PreviewRow& row) override { source_->Preview(rows, row); }
    std::vector<std::pair<std::string, std::string>> Properties() override { return source_->Properties(); }
    std::string ColumnNote(int index) const override { return source_->ColumnNote(index); }
    void ApplyOptions(const ImportOptions& options) override { source_->ApplyOptions(options); }
    TFieldType ColumnType(const TKvIColumn& column) const override { return source_->ColumnType(column); }
    std::string InnerFileName() const override { return member_; }

private:
    std::unique_ptr<MemberFolder> folder_; // declared first: the source goes before its file
    std::unique_ptr<SourceSetup> source_;
    std::string member_;
};

const TKvZipEntry& ChooseMember(const TKvZipReader& zip, const ImportOptions& o, const std::string& archive) {
    if (o.Member) {
        if (const TKvZipEntry* entry = zip.Find(*o.Member)) return *entry;
        throw Exception(archive + ": no member named \"" + *o.Member + "\" (kvimport zip list " + archive +
                        " shows them)");
    }
    std::vector<const TKvZipEntry*> readable;
    for (const TKvZipEntry& entry : zip.Entries())
        if (!entry.IsDirectory() && (o.Format || SourceKindByExtension(ExtensionOf(entry.Name))))
            readable.push_back(&entry);
    if (readable.size() == 1) return *readable[0];
    if (readable.empty()) throw Exception(archive + ": the archive holds no member a source can read");
    std::string names;
    for (size_t i = 0; i < readable.size() && i < 5; ++i) names += (i ? ", " : "") + readable[i]->Name;
    if (readable.size() > 5) names += ", ...";
    throw UsageError(archive + " holds " + std::to_string(readable.size()) + " members a source can read (" +
                     names + "): name one with --member");
}

// The archive's directory; its errors name the archive.
template <class Action> auto WithArchive(const ImportOptions& o, Action action) {
    CheckSourceFile(o.Source);
    const std::string archive = fs::path(o.Source).filename().string();
    try {
        const TKvZipReader zip(o.Source);
        return action(zip, archive);
    } catch (const UsageError&) {
        throw;
    } catch (const EFOpenError&) {
        throw;
    } catch (const Exception& e) {
        const std::string message = e.what();
        if (message.rfind(archive + ":", 0) == 0) throw;
        throw Exception(archive + ": " + message);
    }
}

// The member into `path`, inflated as it is read, so that memory stays small whatever its size.
void WriteMember(const TKvZipReader& zip, const TKvZipEntry& entry, const std::string& path) {
    std::unique_ptr<TStream> member = zip.OpenMember(entry);
    TFileStream out(path, fmCreate);
    out.CopyFrom(*member, 0);
}

} // namespace

bool NamesArchiveMember(const ImportOptions& o) {
    return o.Member || (!o.Clipboard && ExtensionOf(o.Source) == ".zip");
}

const SourceKind& ArchiveMemberKind(const ImportOptions& o) {
    const std::string name =
        o.Member ? *o.Member : WithArchive(o, [&](const TKvZipReader& zip, const std::string& archive) {
            return ChooseMember(zip, o, archive).Name;
        });
    if (const SourceKind* kind = SourceKindByExtension(ExtensionOf(name))) return *kind;
    throw UsageError("cannot tell the format of the member '" + name + "' from its extension; use --format " +
                     SourceKindNames("|"));
}

std::unique_ptr<SourceSetup>
OpenArchiveMember(const ImportOptions& o,
                  const std::function<std::unique_ptr<SourceSetup>(const ImportOptions&)>& open) {
    if (o.SaveSpec)
        throw UsageError("--save-spec records a source file, not a member of an archive: extract the member "
                         "to save a specification for it");
    auto folder = std::make_unique<MemberFolder>();
    ImportOptions member = o;
    member.Member.reset();
    WithArchive(o, [&](const TKvZipReader& zip, const std::string& archive) {
        const TKvZipEntry& chosen = ChooseMember(zip, o, archive);
        member.Source = (fs::path(folder->Path()) / LeafName(chosen)).string();
        WriteMember(zip, chosen, member.Source);
        // Files a reader looks for beside its own, such as a table's memo file, come along.
        for (const TKvZipEntry& other : zip.Entries())
            if (&other != &chosen && !other.IsDirectory() && Folder(other.Name) == Folder(chosen.Name) &&
                Stem(LeafName(other)) == Stem(LeafName(chosen)) && LeafName(other) != LeafName(chosen))
                WriteMember(zip, other, (fs::path(folder->Path()) / LeafName(other)).string());
        return 0;
    });
    std::unique_ptr<SourceSetup> source = open(member);
    return std::make_unique<MemberSource>(std::move(folder), std::move(source), member.Source);
}

} // namespace kv::cli
