#include "SourceKinds.h"

#include "ArchiveMember.h"

#include "datasets/KvDatabase.h"

#include "platform/SysUtils.h"

#include <algorithm>
#include <filesystem>
#include <list>

namespace kv::cli {

namespace {

// Kinds register from static objects of their own files: the table is made on first use, whatever the
// order in which those files start. A list, so that a kind never moves once registered.
std::list<SourceKind>& Table() {
    static std::list<SourceKind> table;
    return table;
}

} // namespace

RegisterSourceKind::RegisterSourceKind(SourceKind kind) {
    Table().push_back(std::move(kind));
}

std::vector<const SourceKind*> SourceKinds() {
    std::vector<const SourceKind*> kinds;
    for (const SourceKind& kind : Table()) kinds.push_back(&kind);
    std::sort(kinds.begin(), kinds.end(),
              [](const SourceKind* a, const SourceKind* b) { return a->Name < b->Name; });
    return kinds;
}

const SourceKind* SourceKindByName(const std::string& name) {
    for (const SourceKind& kind : Table())
        if (SameText(kind.Name, name)) return &kind;
    return nullptr;
}

const SourceKind* SourceKindByExtension(const std::string& extension) {
    for (const SourceKind& kind : Table())
        for (const std::string& e : kind.Extensions)
            if (SameText(e, extension)) return &kind;
    return nullptr;
}

const SourceKind* SourceKindBySpecificationName(const std::string& name) {
    for (const SourceKind& kind : Table())
        if (SameText(kind.SpecificationName, name)) return &kind;
    return nullptr;
}

const SourceKind* StandardInputKind() {
    for (const SourceKind& kind : Table())
        if (kind.ReadsStandardInput) return &kind;
    return nullptr;
}

std::string SourceKindNames(const char* separator) {
    std::string names;
    for (const SourceKind* kind : SourceKinds()) names += (names.empty() ? "" : separator) + kind->Name;
    return names;
}

const SourceKind& SourceKindOf(const ImportOptions& o) {
    if (o.Format) {
        if (const SourceKind* kind = SourceKindByName(*o.Format)) return *kind;
        throw UsageError("--format expects one of " + SourceKindNames(", ") + "; got '" + *o.Format + "'");
    }
    if (o.Clipboard || o.Source == "-") {
        if (const SourceKind* kind = StandardInputKind()) return *kind;
    }
    if (IsPostgreSQLTarget(o.Source))
        if (const SourceKind* kind = SourceKindByName("postgresql")) return *kind;
    if (NamesArchiveMember(o)) return ArchiveMemberKind(o);
    if (const SourceKind* kind = SourceKindByExtension(std::filesystem::path(o.Source).extension().string()))
        return *kind;
    throw UsageError("cannot tell the format of '" + o.Source + "' from its extension; use --format " +
                     SourceKindNames("|"));
}

} // namespace kv::cli
