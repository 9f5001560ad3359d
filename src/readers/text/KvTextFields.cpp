#include "readers/text/KvTextFields.h"

#include "platform/SysUtils.h"
#include "platform/Utf8.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_set>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kv {

namespace {

// The first position from `i` (1-based) whose character is the delimiter or the qualifier, or `length`
// when none is: the only places where the field walk has anything to decide.
template <class Ch> int64_t NextStop(const Ch* s, int64_t i, int64_t length, Ch delimiter, Ch qualifier) {
    for (; i < length; ++i)
        if (s[i - 1] == delimiter || s[i - 1] == qualifier) return i;
    return length;
}

#if defined(__SSE2__)
// Bytes sixteen at a time: a record's fields are mostly longer than the two comparisons a byte costs.
template <>
int64_t NextStop(const unsigned char* s, int64_t i, int64_t length, unsigned char delimiter,
                 unsigned char qualifier) {
    const __m128i d = _mm_set1_epi8(static_cast<char>(delimiter));
    const __m128i q = _mm_set1_epi8(static_cast<char>(qualifier));
    for (; i + 15 < length; i += 16) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s + i - 1));
        const int hits = _mm_movemask_epi8(_mm_or_si128(_mm_cmpeq_epi8(x, d), _mm_cmpeq_epi8(x, q)));
        if (hits) return i + __builtin_ctz(static_cast<unsigned>(hits));
    }
    return NextStop<char>(reinterpret_cast<const char*>(s), i, length, static_cast<char>(delimiter),
                          static_cast<char>(qualifier)); // the tail, byte by byte
}
#endif

// The field walk over positions 1..L of `s`. Run over bytes when delimiter and qualifier are ASCII (no
// byte of a multi-byte character can equal them, so the result is the same in byte positions) and over
// code points otherwise.
template <class Ch, class Emit>
void WalkFields(const Ch* s, int64_t length, Ch delimiter, bool hasDelimiter, Ch qualifier, bool hasQualifier,
                Emit emit) {
    const auto isDelimiter = [&](int64_t i) {
        return hasDelimiter && i >= 1 && i <= length && s[i - 1] == delimiter;
    };
    const auto isQualifier = [&](int64_t i) {
        return hasQualifier && i >= 1 && i <= length && s[i - 1] == qualifier;
    };
    // Blanks around a qualified value ("a, "b, c" ,d") are layout, not data; the delimiter may be a blank.
    const auto isBlank = [&](int64_t i) {
        return i >= 1 && i <= length && (s[i - 1] == Ch(' ') || s[i - 1] == Ch('\t')) &&
               !(hasDelimiter && s[i - 1] == delimiter);
    };
    int64_t start = 1;
    bool inside = false;
    // The qualifiers of the field so far: those beyond its own pair are what post-processing collapses.
    int64_t qualifiers = 0;
    const bool sameCharacter = hasQualifier && hasDelimiter && delimiter == qualifier;
    for (int64_t i = 1; i <= length; ++i) {
        // Only a qualifier, a delimiter or the last character changes anything.
        i = NextStop(s, i, length, delimiter, qualifier);
        if (!hasQualifier) {
            inside = false;
        } else if (s[i - 1] == qualifier) {
            inside = !inside;
            ++qualifiers;
        }
        if (!((isDelimiter(i) && !inside) || i == length)) continue;
        int64_t end = i - 1;
        if (i == length) end = isDelimiter(i) ? i - 1 : i;
        int64_t first = start;
        // One comparison passes an ordinary field: only one that starts with a blank is looked at further.
        if (start < end && s[start - 1] <= Ch(' ') && hasQualifier && isBlank(start)) {
            int64_t q = start;
            while (q < end && isBlank(q)) ++q;
            if (isQualifier(q)) first = q;
        }
        const bool qualified = isQualifier(first);
        if (qualified || isDelimiter(first)) ++first;
        int64_t last = end;
        if (qualified && end >= first && s[end - 1] <= Ch(' ') && isBlank(end)) {
            int64_t q = end;
            while (q >= first && isBlank(q)) --q;
            if (q >= first && isQualifier(q)) last = q;
        }
        const bool closed = isQualifier(last);
        const bool holdsQualifier = sameCharacter || qualifiers - qualified - closed > 0;
        emit(first, closed ? last - 1 : last, qualified, holdsQualifier);
        start = isDelimiter(end + 1) ? end + 2 : end + 1;
        qualifiers = 0;
    }
    if (isDelimiter(length)) emit(length + 1, length, false, false); // a trailing delimiter opens one more
}

bool HasPrefix(std::string_view s, std::string_view prefix) {
    return !prefix.empty() && s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

// A field number: decimal digits only; numbers too large for any record stay out of range.
bool ParseFieldNumber(std::string_view digits, int64_t& out) {
    if (digits.empty()) return false;
    out = 0;
    for (char c : digits) {
        if (c < '0' || c > '9') return false;
        if (out < std::numeric_limits<int64_t>::max() / 10) out = out * 10 + (c - '0');
    }
    return true;
}

void CollapseQualifiers(std::string_view value, std::string_view qualifier, std::string& out) {
    if (qualifier.empty() || value.find(qualifier) == std::string_view::npos) {
        out.assign(value.data(), value.size());
        return;
    }
    out.clear();
    size_t i = 0;
    while (i < value.size()) {
        if (value.compare(i, qualifier.size(), qualifier) == 0) {
            out.append(qualifier);
            i += qualifier.size();
            while (value.compare(i, qualifier.size(), qualifier) == 0) i += qualifier.size();
        } else {
            out.push_back(value[i++]);
        }
    }
}

std::string EncodeOrEmpty(char32_t c) {
    return c ? Utf8Encode(c) : std::string();
}

} // namespace

std::vector<TKvTextFieldPos> SplitTextFieldPositions(std::string_view line, char32_t delimiter,
                                                     char32_t qualifier) {
    const std::u32string chars = Utf8ToU32(line);
    std::vector<TKvTextFieldPos> out;
    WalkFields(chars.data(), static_cast<int64_t>(chars.size()), delimiter, delimiter != 0, qualifier,
               qualifier != 0, [&](int64_t start, int64_t end, bool, bool) {
                   out.push_back({start, end});
               });
    return out;
}

std::string PostProcessTextValue(std::string_view value, char32_t delimiter, char32_t qualifier) {
    const std::string d = EncodeOrEmpty(delimiter), q = EncodeOrEmpty(qualifier);
    if (!d.empty() && value.size() >= d.size() && value.substr(value.size() - d.size()) == d)
        value.remove_suffix(d.size());
    std::string out;
    CollapseQualifiers(value, q, out);
    return out;
}

void TKvTextFields::SetDelimiter(char32_t delimiter) {
    delimiter_ = delimiter;
    delimiterBytes_ = EncodeOrEmpty(delimiter);
}

void TKvTextFields::SetQualifier(char32_t qualifier) {
    qualifier_ = qualifier;
    qualifierBytes_ = EncodeOrEmpty(qualifier);
}

void TKvTextFields::SetLine(std::string_view line) {
    std::string& stored = split_.Line;
    std::vector<TKvTextRawField>& fields = split_.Fields;
    stored.assign(line.data(), line.size());
    lineAscii_ = -1;
    fields.clear();
    split_.Prepared = false; // the value strings stay, for their buffers
    split_.Finished.clear();
    split_.FinishErrors.clear();
    if (fixedWidth_) return;
    const auto emit = [&fields](int64_t start, int64_t end, bool qualified, bool holdsQualifier) {
        fields.push_back({start, end, qualified, holdsQualifier});
    };
    if (delimiter_ < 0x80 && qualifier_ < 0x80) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(stored.data());
        WalkFields(bytes, static_cast<int64_t>(stored.size()), static_cast<unsigned char>(delimiter_),
                   delimiter_ != 0, static_cast<unsigned char>(qualifier_), qualifier_ != 0, emit);
        return;
    }
    // A delimiter or qualifier beyond ASCII: walk code points, then turn their positions into bytes.
    chars_.clear();
    offsets_.clear(); // byte offset of every character, and of the end
    for (size_t pos = 0; pos < stored.size();) {
        offsets_.push_back(pos);
        chars_.push_back(Utf8Decode(stored, pos));
    }
    offsets_.push_back(stored.size());
    const auto count = static_cast<int64_t>(chars_.size());
    const auto lineEnd = static_cast<int64_t>(stored.size());
    WalkFields(chars_.data(), count, delimiter_, delimiter_ != 0, qualifier_, qualifier_ != 0,
               [&](int64_t start, int64_t end, bool qualified, bool holdsQualifier) {
                   // start is 1..count+1, end 0..count
                   const int64_t first =
                       start > count ? lineEnd + 1
                                     : static_cast<int64_t>(offsets_[static_cast<size_t>(start - 1)]) + 1;
                   const int64_t last = static_cast<int64_t>(offsets_[static_cast<size_t>(end)]);
                   fields.push_back({first, last, qualified, holdsQualifier});
               });
}

void TKvTextFields::PrepareValues() {
    const auto count = static_cast<size_t>(Count());
    if (split_.Values.size() < count) split_.Values.resize(count);
    for (size_t i = 0; i < count; ++i) FieldValue(static_cast<int>(i) + 1, split_.Values[i]);
    split_.Prepared = true;
}

void TKvTextFields::Swap(TKvTextSplit& split) {
    split_.Swap(split);
    lineAscii_ = -1;
}

bool TKvTextFields::LineIsAscii() const {
    if (lineAscii_ < 0) lineAscii_ = IsAscii(split_.Line) ? 1 : 0;
    return lineAscii_ == 1;
}

TKvTextFieldPos TKvTextFields::Position(int index) const {
    if (index < 1 || index > Count()) return {};
    const TKvTextRawField& f = split_.Fields[static_cast<size_t>(index - 1)];
    if (LineIsAscii()) return {f.Start, f.End};
    // Start is the first byte of a character (or one past the end), End the last byte of one (or 0).
    const std::string_view line(split_.Line);
    const auto startChar = [&](int64_t b) {
        return static_cast<int64_t>(Utf8Length(line.substr(0, static_cast<size_t>(b - 1)))) + 1;
    };
    const auto endChar = [&](int64_t b) {
        return b < 1 ? int64_t(0) : static_cast<int64_t>(Utf8Length(line.substr(0, static_cast<size_t>(b))));
    };
    return {startChar(f.Start), endChar(f.End)};
}

bool TKvTextFields::Qualified(int index) const {
    return index >= 1 && index <= Count() && split_.Fields[static_cast<size_t>(index - 1)].Qualified;
}

std::string_view TKvTextFields::Bytes(const TKvTextRawField& f) const {
    if (f.End < f.Start || static_cast<uint64_t>(f.End) > split_.Line.size()) return {};
    return std::string_view(split_.Line.data() + (f.Start - 1), static_cast<size_t>(f.End - f.Start + 1));
}

std::string_view TKvTextFields::RawField(int index) const {
    if (index < 1 || index > Count()) return {};
    return Bytes(split_.Fields[static_cast<size_t>(index - 1)]);
}

void TKvTextFields::PostProcess(std::string_view value, std::string& out, bool holdsQualifier) const {
    const std::string& d = delimiterBytes_;
    const bool endsWithDelimiter =
        d.size() == 1 ? !value.empty() && value.back() == d[0] : !d.empty() && value.ends_with(d);
    if (endsWithDelimiter) value.remove_suffix(d.size());
    if (holdsQualifier)
        CollapseQualifiers(value, qualifierBytes_, out);
    else
        out.assign(value.data(), value.size());
}

void TKvTextFields::FieldValue(int index, std::string& out) const {
    if (index < 1 || index > Count()) {
        out.clear();
        return;
    }
    const TKvTextRawField& f = split_.Fields[static_cast<size_t>(index - 1)];
    PostProcess(Bytes(f), out, f.HoldsQualifier);
}

std::string TKvTextFields::FieldValue(int index) const {
    std::string out;
    FieldValue(index, out);
    return out;
}

TKvTextRef TKvTextFields::ParseReference(std::string_view reference) const {
    TKvTextRef ref;
    ref.Text.assign(reference.data(), reference.size());
    if (!textWord_.empty() && reference == textWord_) {
        ref.Kind = trkLine;
    } else if (fixedWidth_ && HasPrefix(reference, textWord_)) {
        const std::string_view rest = reference.substr(textWord_.size());
        const size_t dash = rest.find('-');
        ref.First = StrToIntDef(rest.substr(0, dash), 0);
        ref.Last = dash == std::string_view::npos ? 0 : StrToIntDef(rest.substr(dash + 1), 0);
        if (ref.First >= 1) ref.Kind = trkRange; // "Textual" and the like stay constants
    } else if (HasPrefix(reference, fieldWord_) &&
               ParseFieldNumber(reference.substr(fieldWord_.size()), ref.First)) {
        ref.Kind = trkField;
    }
    return ref;
}

void TKvTextFields::GetValue(const TKvTextRef& ref, std::string& out) const {
    std::string_view value;
    switch (ref.Kind) {
    case trkLine:
        value = split_.Line;
        break;
    case trkRange:
        if (ref.Last >= ref.First) {
            const std::string_view line(split_.Line);
            if (LineIsAscii()) {
                if (static_cast<uint64_t>(ref.First - 1) < line.size())
                    value = line.substr(static_cast<size_t>(ref.First - 1),
                                        static_cast<size_t>(ref.Last - ref.First + 1));
            } else {
                const size_t from = Utf8Offset(line, static_cast<size_t>(ref.First - 1));
                const std::string_view rest = line.substr(from);
                value = rest.substr(0, Utf8Offset(rest, static_cast<size_t>(ref.Last - ref.First + 1)));
            }
        }
        break;
    case trkField:
        if (const std::string* prepared = PreparedValue(ref)) {
            // Copied, not moved: the reading thread keeps its buffers and frees nothing of ours.
            out = *prepared;
            return;
        }
        FieldValue(static_cast<int>(std::clamp<int64_t>(ref.First, 0, Count() + 1)), out);
        return;
    case trkConstant:
        value = ref.Text;
        break;
    }
    PostProcess(value, out);
}

std::string TKvTextFields::GetFieldValue(std::string_view reference) const {
    std::string out;
    GetValue(ParseReference(reference), out);
    return out;
}

std::vector<std::string> TextColumnNames(std::string_view headerLine, char32_t delimiter, char32_t qualifier,
                                         const std::string& fieldWord) {
    TKvTextFields fields;
    fields.SetDelimiter(delimiter);
    fields.SetQualifier(qualifier);
    fields.SetLine(headerLine);
    std::vector<std::string> names;
    std::unordered_set<std::string> taken; // lower-cased
    std::string value;
    for (int i = 1; i <= fields.Count(); ++i) {
        fields.FieldValue(i, value);
        // Control characters (a NUL of a binary file, say) have no place in a column's name, and "="
        // would end the field's name in a mapping line.
        for (char& c : value) {
            if (static_cast<unsigned char>(c) < ' ') c = ' ';
            if (c == '=') c = '_';
        }
        std::string name = Trim(value);
        if (name.empty()) name = fieldWord + IntToStr(i);
        std::string unique = name;
        for (int suffix = 2; taken.count(Utf8LowerCase(unique)); ++suffix)
            unique = name + "_" + IntToStr(suffix);
        taken.insert(Utf8LowerCase(unique));
        names.push_back(std::move(unique));
    }
    return names;
}

std::string BracketColumnName(std::string_view name) {
    std::string out;
    for (unsigned char c : name) {
        if (c <= ' ') {
            out.reserve(name.size() + 2);
            out.push_back('[');
            out.append(name);
            out.push_back(']');
            return out;
        }
    }
    out.assign(name);
    return out;
}

} // namespace kv
