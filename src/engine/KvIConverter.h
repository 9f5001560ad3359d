#pragma once
// TKvIValueConverter: reads source text into the type of a destination field by the import's data
// formats: booleans by their texts, numbers in decimal only, dates and times by the masks the formats
// make (built once per run), BLOB content from CDATA or base64. Text that fits no value of the field's
// type is a row error, or stays the text it is for a destination that keeps any value.

#include "datasets/DataSet.h"
#include "engine/KvISettings.h"

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kv {

class TKvDateMask;

class TKvIValueConverter {
public:
    /// Reads by `formats`, which the converter does not own and reads at every conversion.
    explicit TKvIValueConverter(const TKvIDataFormats& formats);
    ~TKvIValueConverter();

    /// The mask dates and date-times are read by ("DD/MM/YYYY HH:NN:SS"), the custom format when one is
    /// set; `withT` puts a "T" before the time.
    std::string DateTimeMask(bool withT) const;
    /// The mask times are read by ("HH:NN:SS", "THH:NN:SS").
    std::string TimeMask(bool withT) const;

    /// Starts a run: the masks are built again at their first use. `withT`: the source's date-times
    /// carry a "T"; `mime`: its texts are base64 (BLOBIsMIME); `keepUnconverted`: text that fits no value
    /// of its field's type is left as it is instead of raising; `isoDatesAsText`: a date field's text that
    /// is already the "yyyy-mm-dd" the destination stores stays that text, once checked to be a real day
    /// that the run's mask reads as that day.
    void Start(bool withT, bool mime, bool keepUnconverted, bool isoDatesAsText = false);
    /// Converts `value` for `field` when it is text; other values pass unchanged. Raises EConvertError
    /// ("'x7' is not a valid integer value") for text that fits no value of the field's type.
    void Convert(const TField& field, Variant& value) { Convert(field.DataType(), value); }
    void Convert(TFieldType type, Variant& value);
    /// What becomes of a value a mapping line reads before it is stored: text trimmed by `trim`, an empty
    /// text (or nothing) made Null, then converted for a field of `type` when there is one.
    void Finish(Variant& value, TKvITrimSpaces trim, std::optional<TFieldType> type);
    /// True when `text` is a date that stays text for a field of `type` (see Start).
    bool KeepsIsoDate(TFieldType type, const std::string& text);

private:
    const TKvDateMask& DateReader();
    bool MaskReadsIsoDates();

    const TKvIDataFormats& formats_;
    bool withT_ = false, mime_ = false, keepUnconverted_ = false, isoDatesAsText_ = false;
    int maskReadsIso_ = -1;                                ///< -1 = not known yet
    std::string dateMask_, timeMask_;                      ///< the masks of the run, built at first use
    std::unique_ptr<TKvDateMask> dateReader_, timeReader_; ///< and read once
};

/// Finishes the values of the source columns a run resolved once (see
/// TKvImportBaseComponent::ResolveSourceColumn) as the run would, so that a source may do it on a thread
/// of its own, ahead of the rows: it keeps its own copies of the formats and the field types.
class TKvIColumnFinisher {
public:
    TKvIColumnFinisher(const TKvIDataFormats& formats, TKvITrimSpaces trim);
    TKvIColumnFinisher(const TKvIColumnFinisher&) = delete;
    TKvIColumnFinisher& operator=(const TKvIColumnFinisher&) = delete;

    /// The converter, to Start as the run starts its own.
    TKvIValueConverter& Converter() { return converter_; }
    /// Column `handle` goes into a field of `type`; without one it is finished but not converted.
    void SetColumn(int handle, std::optional<TFieldType> type);
    /// True when `handle` has been set.
    bool Has(int handle) const {
        return handle >= 0 && static_cast<size_t>(handle) < types_.size() && set_[handle];
    }
    /// Finishes `value` of column `handle`; text that is no value of its field's type leaves its error in
    /// `error` (and the value Null), to be raised in the row's turn.
    void Finish(int handle, Variant& value, std::exception_ptr& error);

private:
    TKvIDataFormats formats_;
    TKvIValueConverter converter_{formats_};
    TKvITrimSpaces trim_;
    std::vector<std::optional<TFieldType>> types_;
    std::vector<uint8_t> set_;
};

} // namespace kv
