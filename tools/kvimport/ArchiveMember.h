#pragma once
// A member of a zip archive as the source of an import or a preview: `kvimport import exports.zip
// --member orders.csv` reads the member by the source kind of its own extension, without unpacking the
// archive beside it.

#include "Sources.h"

#include <functional>
#include <memory>
#include <string>

namespace kv::cli {

/// True when the options name a member (--member) or the source is a ".zip" file.
bool NamesArchiveMember(const ImportOptions& options);

/// The kind of source that reads the member the options choose (by its extension; --format wins before).
struct SourceKind;
const SourceKind& ArchiveMemberKind(const ImportOptions& options);

/// Opens the member --member names (or the archive's only member a source kind reads) with `open`,
/// given options whose Source is the member. The member (and the members beside it that share its
/// stem, such as a table's memo file) is inflated into a private folder in shared memory, which goes
/// with the source.
std::unique_ptr<SourceSetup>
OpenArchiveMember(const ImportOptions& options,
                  const std::function<std::unique_ptr<SourceSetup>(const ImportOptions&)>& open);

} // namespace kv::cli
