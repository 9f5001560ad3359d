#include "engine/Impcnst.h"

namespace kv {

std::string strPropertyError = "Property %s wasn't specified.";
std::string strMappingsNotDefined = "You did not map any fields.";
std::string strImporting = "Importing...";
std::string strProcessed = "Processed:";
std::string strErrors = "Errors:";
std::string strAdded = "Added:";
std::string strUpdated = "Updated:";
std::string strDeleted = "Deleted:";
std::string strSkipped = "Skipped:";
std::string strImportCanceled = "The data import process was canceled by the user.";
std::string strImportFinished = "The data import process has completed successfully.";
std::string strImportError = "An error has occurred during the data import process.";
std::string strImportProblems = "The data import process has finished with problems.";
std::string strNoParameterPrompt =
    "The parameters of the import could not be asked: there is no front end to ask them.";
std::string strNothingMapped = "No source column matches a field of %s. Source columns: %s. Fields: %s.";
std::string strNotAnInteger = "'%s' is not a valid integer value";
std::string strNotAFloat = "'%s' is not a valid floating point value";
std::string strNotADate = "'%s' is not a valid date";
std::string strAllFiles = "All files (*.*)|*.*";
std::string strSpecificationFilter = "Import specification (*.KvI)";
std::string strSpecFileNotExist = "File %s not exist.";
std::string strEFileNotExist = "File does not exist.";
std::string strFileNotDefined = "File is not defined.";
std::string strTextFieldName = "Text";
std::string strField = "Field";
std::string strSheetName = "Sheet";

} // namespace kv
