#include "Sources.h"

namespace kv::cli {

std::unique_ptr<SourceSetup> OpenTextSource(const ImportOptions&, const std::string& file, TComponent&) {
    throw UsageError("text sources are not supported yet: '" + file + "'");
}

} // namespace kv::cli
