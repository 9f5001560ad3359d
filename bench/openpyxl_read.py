#!/usr/bin/env python3
"""Reads every cell of every sheet of an Excel 2007+ workbook with openpyxl in read-only mode and touches each
value: openpyxl's side of the workbook comparison (bench/compare.py workbook).

    python3 bench/openpyxl_read.py orders.xlsx
"""

import sys

from openpyxl import load_workbook


def main():
    book = load_workbook(sys.argv[1], read_only=True, data_only=True)
    cells = numbers = texts = others = text_bytes = 0
    total = 0.0
    for sheet in book.worksheets:
        for row in sheet.iter_rows(values_only=True):
            for value in row:
                if value is None:
                    continue
                cells += 1
                if isinstance(value, (int, float)) and not isinstance(value, bool):
                    numbers += 1
                    total += value
                elif isinstance(value, str):
                    texts += 1
                    text_bytes += len(value.encode("utf-8"))
                else:
                    others += 1
    book.close()
    print(f"{cells} cells: {numbers} numbers (sum {total:.2f}), {texts} texts ({text_bytes} bytes), {others} others")


if __name__ == "__main__":
    main()
