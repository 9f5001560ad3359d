#pragma once
// Texts of the expression unit: expression builder categories and the parameter prompt. Like every
// message of the library they are replaceable by the application.

#include <string>

namespace kv {

extern std::string strEBArithmetic;       // "Arithmetic"
extern std::string strEBComparison;       // "Comparison"
extern std::string strEBLogic;            // "Logic"
extern std::string strEBConversion;       // "Conversion"
extern std::string strEBDT;               // "Date/time"
extern std::string strEBMath;             // "Math"
extern std::string strEBFlow;             // "Program Flow"
extern std::string strEBAggregate;        // "Aggregate"
extern std::string strEBStrCategory;      // "String"
extern std::string strEBConst;            // "Constants"
extern std::string strEBSysVaraiables;    // "System variables"
extern std::string strEBCustomVaraiables; // "Custom variables"

extern std::string strAPCaption; // "Parameter properties"
extern std::string strTrue;      // "True"
extern std::string strFalse;     // "False"
extern std::string strBtnOk;     // "&OK"
extern std::string strBtnCancel; // "&Cancel"

} // namespace kv
