#pragma once
// What both OpenDocument fuzz targets check of a load: every cell inside a sheet's limits with UTF-8 text,
// a failure only one of the reader's own errors (or the zip reader's), and each sheet read row by row in
// record mode as the whole load keeps it. Repeats are bounded low, so that no input makes it work long.

#include "platform/FormatError.h"
#include "platform/Streams.h"
#include "platform/Utf8.h"
#include "readers/archive/KvIOO.h"
#include "readers/archive/KvIZipFile.h"
#include "readers/archive/KvZipReader.h"
#include "record_mode_check.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace ods_fuzz {

inline void Check(bool condition) {
    if (!condition) std::abort();
}

inline bool IsReaderMessage(const std::string& message) {
    return message.rfind("OpenDocument: ", 0) == 0 || message.rfind(kv::strOONotSpreadsheet, 0) == 0 ||
           message.rfind(kv::strOOEncrypted, 0) == 0;
}

/// Loads `bytes` from `stream` (which record mode reads on from); false when the load failed with an
/// error of its own.
inline bool Load(kv::TKvIOpenOfficeSpreadsheet& reader, kv::TStream& stream, const std::string& bytes) {
    reader.SetMaxRepeatedCells(20000);
    try {
        reader.LoadFromStream(stream);
        return true;
    } catch (const kv::EKvFormatError& e) {
        Check(e.Format() == kv::TKvZipReader::kFormat && e.Offset() <= bytes.size());
    } catch (const kv::EKvZipError&) {
    } catch (const kv::EZipFileCRCError&) {
    } catch (const kv::Exception& e) {
        Check(IsReaderMessage(e.what()));
    }
    return false;
}

inline void CheckDocument(const std::string& bytes, uint8_t options) {
    kv::TKvIOpenOfficeSpreadsheet whole;
    const int filter = options & 1 ? (options >> 1) & 3 : -1;
    whole.SetSheetFilter(filter);
    kv::TMemoryStream wholeStream(bytes), recordStream(bytes);
    if (!Load(whole, wholeStream, bytes)) return;
    for (const auto& [label, text] : whole.FileProperties()) Check(kv::IsValidUtf8(text));
    for (int s = 0; s < whole.SpreadSheets().Count(); ++s) {
        const kv::TSpreadSheetCells& cells = whole.SpreadSheets().Spreadsheet(s).Cells();
        Check(cells.RowCount() <= kv::TKvIOpenOfficeSpreadsheet::MaxRows &&
              cells.ColCount() <= kv::TKvIOpenOfficeSpreadsheet::MaxColumns);
        for (int r = 0; r < cells.Count(); ++r)
            for (int c = 0; c < cells.Row(r)->Cols().Count(); ++c)
                if (const kv::TKvICell* cell = cells.Row(r)->Cols().GetCell(c);
                    cell && cell->Value.IsString())
                    Check(kv::IsValidUtf8(cell->Value.StringRef()));
    }

    // Row by row, the sheet chosen after the load as a sheet named by the user is.
    kv::TKvIOpenOfficeSpreadsheet records;
    records.SetRecordMode(true);
    Check(Load(records, recordStream, bytes));
    fuzzcheck::CompareRows(whole, records, filter >= 0 ? filter : 0);
}

} // namespace ods_fuzz
