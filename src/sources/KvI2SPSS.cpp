#include "sources/KvI2SPSS.h"

#include "engine/Impcnst.h"
#include "platform/StringList.h"
#include "platform/SysUtils.h"

namespace kv {

std::string TKvImportFromSPSS::FillFileFilters() const {
    return "SPSS data files|*.SAV;*.ZSAV|" + strAllFiles;
}

std::unique_ptr<TSpreadSheetFile> TKvImportFromSPSS::WorkBookCreation() {
    auto reader = std::make_unique<TSPSSFile>();
    reader->SetValueLabels(valueLabels_);
    reader->SetUserMissing(userMissing_);
    reader->SetCaptions(captions_);
    return reader;
}

void TKvImportFromSPSS::LoadSpecificationFromStrings(const TStringList& list) {
    TKvImportFromCell::LoadSpecificationFromStrings(list);
    // Lines a specification lacks keep what the component had.
    const std::string labels = list.Values("ValueLabels");
    if (!labels.empty()) valueLabels_ = labels == "1";
    const std::string missing = list.Values("UserMissing");
    if (SameText(missing, "null")) userMissing_ = umNull;
    if (SameText(missing, "keep")) userMissing_ = umKeep;
    const std::string captions = list.Values("Captions");
    if (SameText(captions, "names")) captions_ = spcNames;
    if (SameText(captions, "labels")) captions_ = spcLabels;
}

void TKvImportFromSPSS::SaveSpecificationToStream(TStream& stream, const std::string& description) {
    TKvImportFromCell::SaveSpecificationToStream(stream, description);
    TStringList l;
    l.Add("[SPSS]");
    l.Add(std::string("ValueLabels=") + (valueLabels_ ? "1" : "0"));
    l.Add(std::string("UserMissing=") + (userMissing_ == umKeep ? "keep" : "null"));
    l.Add(std::string("Captions=") + (captions_ == spcLabels ? "labels" : "names"));
    l.SaveToStream(stream);
}

} // namespace kv
