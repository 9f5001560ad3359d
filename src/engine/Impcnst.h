#pragma once
// The message catalogue: every text the import components show or raise. Each is a replaceable string
// (an application may translate them at start-up); the expression unit's texts (True, False, the button
// captions, the parameter prompt) are part of it too.

#include "expression/KvIParsConst.h"

#include <string>

namespace kv {

extern std::string strPropertyError;       // "Property %s wasn't specified."
extern std::string strMappingsNotDefined;  // "You did not map any fields."
extern std::string strImporting;           // "Importing..."
extern std::string strProcessed;           // "Processed:"
extern std::string strErrors;              // "Errors:"
extern std::string strAdded;               // "Added:"
extern std::string strUpdated;             // "Updated:"
extern std::string strDeleted;             // "Deleted:"
extern std::string strSkipped;             // "Skipped:"
extern std::string strImportCanceled;      // "The data import process was canceled by the user."
extern std::string strImportFinished;      // "The data import process has completed successfully."
extern std::string strImportError;         // "An error has occurred during the data import process."
extern std::string strImportProblems;      // "The data import process has finished with problems."
extern std::string strNoParameterPrompt;   // "The parameters of the import could not be asked: ..."
extern std::string strNothingMapped;       // "No source column matches a field of %s. ..."
extern std::string strNotAnInteger;        // "'%s' is not a valid integer value"
extern std::string strNotAFloat;           // "'%s' is not a valid floating point value"
extern std::string strNotADate;            // "'%s' is not a valid date"
extern std::string strAllFiles;            // "All files (*.*)|*.*"
extern std::string strSpecificationFilter; // "Import specification (*.KvI)"
extern std::string strSpecFileNotExist;    // "File %s not exist."
extern std::string strEFileNotExist;       // "File does not exist."
extern std::string strFileNotDefined;      // "File is not defined."
extern std::string strTextFieldName;       // "Text"
extern std::string strField;               // "Field"
extern std::string strSheetName;           // "Sheet"

} // namespace kv
