#include "expression/KvIParsInternal.h"

#include "platform/Exceptions.h"
#include "platform/Format.h"
#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <cmath>
#include <random>
#include <unordered_map>

namespace kv::expr {

namespace {

// Beyond any field a table holds; guards against an allocation of gigabytes.
constexpr int KvIMaxPadLength = 1 << 24;

enum Builtin {
    bGetDate,
    bSubstr,
    bReplaceStr,
    bPadL,
    bPadR,
    bChr,
    bUpper,
    bLower,
    bTrim,
    bTrimLeft,
    bTrimRight,
    bPos,
    bStrToFloat,
    bStrToInt,
    bStrToDate,
    bDateTimeFromString,
    bLength,
    bOrd,
    bIntToStr,
    bFloatToStr,
    bMax,
    bMin,
    bSum,
    bAvg,
    bCount,
    bFrac,
    bInt,
    bRound,
    bDiv,
    bMod,
    bRandom,
    bAbs,
    bPower,
    bExp,
    bLn,
    bLog,
    bSqr,
    bSqrt,
    bPercent,
    bIif,
    bIsNull,
    bDateToStr,
    bDatePart,
    bTimePart,
    bYear,
    bMonth,
    bDay,
    bHour,
    bMinute,
    bSecond
};

const std::unordered_map<std::string, int>& BuiltinNames() {
    static const std::unordered_map<std::string, int> names = {
        {"GETDATE", bGetDate},
        {"SUBSTR", bSubstr},
        {"SUBSTRING", bSubstr},
        {"COPY", bSubstr},
        {"REPLACESTR", bReplaceStr},
        {"PADL", bPadL},
        {"PADR", bPadR},
        {"CHR", bChr},
        {"UPPER", bUpper},
        {"LOWER", bLower},
        {"TRIM", bTrim},
        {"TRIMLEFT", bTrimLeft},
        {"TRIMRIGHT", bTrimRight},
        {"POS", bPos},
        {"STRTOFLOAT", bStrToFloat},
        {"STRTOINT", bStrToInt},
        {"STRTODATE", bStrToDate},
        {"DATETIMEFROMSTRING", bDateTimeFromString},
        {"LENGTH", bLength},
        {"ORD", bOrd},
        {"INTTOSTR", bIntToStr},
        {"FLOATTOSTR", bFloatToStr},
        {"MAX", bMax},
        {"MIN", bMin},
        {"SUM", bSum},
        {"AVG", bAvg},
        {"COUNT", bCount},
        {"FRAC", bFrac},
        {"INT", bInt},
        {"ROUND", bRound},
        {"DIV", bDiv},
        {"MOD", bMod},
        {"RANDOM", bRandom},
        {"ABS", bAbs},
        {"POWER", bPower},
        {"EXP", bExp},
        {"LN", bLn},
        {"LOG", bLog},
        {"SQR", bSqr},
        {"SQRT", bSqrt},
        {"PERCENT", bPercent},
        {"IIF", bIif},
        {"ISNULL", bIsNull},
        {"DATETOSTR", bDateToStr},
        {"DATEPART", bDatePart},
        {"TIMEPART", bTimePart},
        {"YEAR", bYear},
        {"MONTH", bMonth},
        {"DAY", bDay},
        {"HOUR", bHour},
        {"MINUTE", bMinute},
        {"SECOND", bSecond},
    };
    return names;
}

double CheckFinite(double result) {
    if (std::isnan(result)) throw EInvalidOp("Invalid floating point operation");
    if (std::isinf(result)) throw EOverflow("Floating point overflow");
    return result;
}

double Logarithm(double x) {
    if (!(x > 0)) throw EInvalidOp("Invalid floating point operation");
    return std::log(x);
}

std::string Pad(const std::string& text, int length, const Variant* padArgument, bool left) {
    if (length > KvIMaxPadLength)
        throw Exception(Format("Calculate error: padding to %d characters.", length));
    std::string cut = Utf8Copy(text, 1, length);
    const int64_t missing = static_cast<int64_t>(length) - static_cast<int64_t>(Utf8Length(cut));
    if (missing <= 0) return cut;
    std::string padChar = " ";
    if (padArgument) {
        std::string p = padArgument->AsString();
        if (!p.empty()) padChar = Utf8Copy(p, 1, 1);
    }
    std::string run;
    run.reserve(static_cast<size_t>(missing) * padChar.size());
    for (int64_t i = 0; i < missing; ++i) run += padChar;
    return left ? run + cut : cut + run;
}

char32_t FirstCharOrBlank(const Variant& v) {
    if (!v.IsString() || v.StringRef().empty()) return U' ';
    size_t pos = 0;
    return Utf8Decode(v.StringRef(), pos);
}

Variant DatePartNumber(const Variant& v, const char* pattern) {
    return Variant(StrToInt(FormatDateTime(pattern, v.AsDateTime())));
}

std::mt19937_64& RandomEngine() {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    return engine;
}

} // namespace

const int BuiltinGetDate = bGetDate;

int BuiltinId(std::string_view name) {
    if (name.size() > 18) return -1;
    auto it = BuiltinNames().find(UpperCase(name));
    return it == BuiltinNames().end() ? -1 : it->second;
}

Variant CalculateBuiltin(int id, const TExpNode& node, TExpEvalContext& context) {
    const int count = node.ChildCount();
    auto arg = [&](int i) { return node.Argument(i, context); };
    auto all = [&] {
        std::vector<Variant> values;
        values.reserve(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) values.push_back(arg(i));
        return values;
    };

    switch (id) {
    case bGetDate:
        return Variant::FromDateTime(Now());
    case bSubstr: {
        std::string text = arg(0).AsString();
        int64_t start = arg(1).AsInteger();
        int64_t length = count > 2 ? arg(2).AsInteger() : INT64_MAX;
        return Variant(Utf8Copy(text, start, length));
    }
    case bReplaceStr: {
        if (count < 5) RaiseSyntaxTreeFault();
        std::string text = arg(0).AsString(), oldText = arg(1).AsString(), newText = arg(2).AsString();
        bool ignoreCase = arg(3).AsBoolean();
        bool replaceAll = arg(4).AsBoolean();
        return Variant(ReplaceStr(text, oldText, newText, ignoreCase, replaceAll));
    }
    case bPadL:
    case bPadR: {
        std::string text = arg(0).AsString();
        int length = arg(1).AsInteger();
        Variant padChar = count > 2 ? arg(2) : Variant();
        return Variant(Pad(text, length, count > 2 ? &padChar : nullptr, id == bPadL));
    }
    case bChr: {
        int64_t code = arg(0).AsInteger();
        if (code < 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return Variant(std::string());
        if (code == 0) return Variant(std::string(1, '\0'));
        return Variant(Utf8Encode(static_cast<char32_t>(code)));
    }
    case bUpper:
        return Variant(Utf8UpperCase(arg(0).AsString()));
    case bLower:
        return Variant(Utf8LowerCase(arg(0).AsString()));
    case bTrim:
        return Variant(Trim(arg(0).AsString()));
    case bTrimLeft:
        return Variant(TrimLeft(arg(0).AsString()));
    case bTrimRight:
        return Variant(TrimRight(arg(0).AsString()));
    case bPos: {
        std::string sub = arg(0).AsString();
        return Variant::FromInt(Utf8Pos(sub, arg(1).AsString()));
    }
    case bStrToFloat:
        return Variant(StrToFloat(arg(0).AsString()));
    case bStrToInt:
        return Variant::FromInt(StrToInt64(arg(0).AsString()));
    case bStrToDate:
        return Variant::FromDateTime(StrToDate(arg(0).AsString()));
    case bDateTimeFromString: {
        std::string value = arg(0).AsString(), mask = arg(1).AsString();
        char32_t dateSep = FirstCharOrBlank(arg(2));
        char32_t timeSep = FirstCharOrBlank(arg(3));
        return Variant::FromDateTime(GetDTByMask(value, mask, dateSep, timeSep));
    }
    case bLength:
        return Variant::FromInt(static_cast<int64_t>(Utf8Length(arg(0).AsString())));
    case bOrd: {
        std::string text = arg(0).AsString();
        size_t pos = 0;
        return Variant::FromInt(text.empty() ? 0 : static_cast<int64_t>(Utf8Decode(text, pos)));
    }
    case bIntToStr:
        return Variant(IntToStr(arg(0).AsInt64()));
    case bFloatToStr:
        return Variant(FloatToStr(arg(0).AsDouble()));
    case bMax: {
        Variant result(0);
        for (const Variant& v : all())
            if (v.Compare(result) == vrGreaterThan) result = v;
        return result;
    }
    case bMin: {
        Variant result = Variant::Null();
        for (const Variant& v : all())
            if (result.IsNull() || result.Compare(v) == vrGreaterThan) result = v;
        return result;
    }
    case bSum:
    case bAvg: {
        Variant sum(0);
        for (const Variant& v : all()) sum = sum + v;
        if (id == bSum) return sum;
        return count == 0 ? Variant(0) : sum / Variant(static_cast<double>(count));
    }
    case bCount:
        return Variant(count - 1);
    case bFrac: {
        double x = arg(0).AsDouble();
        return Variant(x - std::trunc(x));
    }
    case bInt:
        return Variant(std::trunc(arg(0).AsDouble()));
    case bRound:
        return Variant::FromInt(Variant(arg(0).AsDouble()).AsInt64());
    case bDiv: {
        Variant a = arg(0);
        return a.IntDiv(arg(1));
    }
    case bMod: {
        Variant a = arg(0);
        return a.Mod(arg(1));
    }
    case bRandom: {
        if (count == 0) return Variant(std::uniform_real_distribution<double>(0, 1)(RandomEngine()));
        int range = arg(0).AsInteger();
        if (range <= 0) return Variant(0);
        return Variant(std::uniform_int_distribution<int>(0, range - 1)(RandomEngine()));
    }
    case bAbs:
        return Variant(std::fabs(arg(0).AsDouble()));
    case bPower: {
        double base = arg(0).AsDouble();
        return Variant(Power(base, arg(1).AsDouble()));
    }
    case bExp:
        return Variant(CheckFinite(std::exp(arg(0).AsDouble())));
    case bLn:
        return Variant(Logarithm(arg(0).AsDouble()));
    case bLog:
        return Variant(Logarithm(arg(0).AsDouble()) / std::log(10.0));
    case bSqr: {
        double x = arg(0).AsDouble();
        return Variant(CheckFinite(x * x));
    }
    case bSqrt: {
        double x = arg(0).AsDouble();
        if (x < 0) throw EInvalidOp("Invalid floating point operation");
        return Variant(std::sqrt(x));
    }
    case bPercent: {
        double a = arg(0).AsDouble();
        return Variant(CheckFinite(a * arg(1).AsDouble() / 100.0));
    }
    case bIif:
        return arg(0).AsBoolean() ? arg(1) : arg(2);
    case bIsNull:
        return Variant(arg(0).IsNullOrEmpty());
    case bDateToStr:
        return Variant(DateToStr(arg(0).AsDateTime()));
    case bDatePart:
        return Variant(std::trunc(arg(0).AsDateTime()));
    case bTimePart: {
        double dt = arg(0).AsDateTime();
        return Variant(dt - std::trunc(dt));
    }
    case bYear:
        return DatePartNumber(arg(0), "yyyy");
    case bMonth:
        return DatePartNumber(arg(0), "m");
    case bDay:
        return DatePartNumber(arg(0), "d");
    case bHour:
        return DatePartNumber(arg(0), "h");
    case bMinute:
        return DatePartNumber(arg(0), "n");
    case bSecond:
        return DatePartNumber(arg(0), "s");
    default:
        RaiseSyntaxTreeFault();
    }
}

} // namespace kv::expr
