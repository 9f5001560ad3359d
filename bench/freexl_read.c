/* Reads every cell of every worksheet of an Excel workbook with FreeXL and touches each value as
   bench/xls_read.cpp does: FreeXL's side of the reading comparison (bench/compare.py xls). */

#include <freexl.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
    const void* handle = NULL;
    unsigned int sheets = 0;
    long long cells = 0, numbers = 0, texts = 0, text_bytes = 0;
    double sum = 0;
    int rc;
    if (argc != 2) {
        fprintf(stderr, "usage: freexl_read WORKBOOK.xls\n");
        return 2;
    }
    rc = freexl_open(argv[1], &handle);
    if (rc != FREEXL_OK || freexl_get_info(handle, FREEXL_BIFF_SHEET_COUNT, &sheets) != FREEXL_OK) {
        fprintf(stderr, "freexl cannot open %s (%d)\n", argv[1], rc);
        return 1;
    }
    for (unsigned int s = 0; s < sheets; ++s) {
        unsigned int rows = 0;
        unsigned short columns = 0;
        if (freexl_select_active_worksheet(handle, (unsigned short)s) != FREEXL_OK ||
            freexl_worksheet_dimensions(handle, &rows, &columns) != FREEXL_OK)
            return 1;
        for (unsigned int r = 0; r < rows; ++r)
            for (unsigned short c = 0; c < columns; ++c) {
                FreeXL_CellValue cell;
                if (freexl_get_cell_value(handle, r, c, &cell) != FREEXL_OK) return 1;
                switch (cell.type) {
                case FREEXL_CELL_NULL:
                    continue;
                case FREEXL_CELL_INT:
                    ++numbers;
                    sum += cell.value.int_value;
                    break;
                case FREEXL_CELL_DOUBLE:
                    ++numbers;
                    sum += cell.value.double_value;
                    break;
                default: /* texts, and dates and times, which FreeXL gives as texts */
                    ++texts;
                    text_bytes += (long long)strlen(cell.value.text_value);
                }
                ++cells;
            }
    }
    freexl_close(handle);
    printf("%lld cells: %lld numbers (sum %.2f), %lld texts (%lld bytes)\n", cells, numbers, sum, texts,
           text_bytes);
    return 0;
}
