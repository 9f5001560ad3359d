// The texts of the expression unit and the user function registry live in one file so that the
// registry's start-up entry is made after the texts it uses.

#include "expression/KvIParsConst.h"

#include "expression/KvIPars.h"

namespace kv {

std::string strEBArithmetic = "Arithmetic";
std::string strEBComparison = "Comparison";
std::string strEBLogic = "Logic";
std::string strEBConversion = "Conversion";
std::string strEBDT = "Date/time";
std::string strEBMath = "Math";
std::string strEBFlow = "Program Flow";
std::string strEBAggregate = "Aggregate";
std::string strEBStrCategory = "String";
std::string strEBConst = "Constants";
std::string strEBSysVaraiables = "System variables";
std::string strEBCustomVaraiables = "Custom variables";

std::string strAPCaption = "Parameter properties";
std::string strTrue = "True";
std::string strFalse = "False";
std::string strBtnOk = "&OK";
std::string strBtnCancel = "&Cancel";

namespace {
TKvIParserFunctions MakeRegistry() {
    TKvIParserFunctions list;
    TKvIParserFunction& pi = list.AddFunction("PI=3.14");
    pi.Description = "PI value";
    pi.Category = strEBConst;
    return list;
}
} // namespace

TKvIParserFunctions lstKvIRegFunctions = MakeRegistry();

} // namespace kv
