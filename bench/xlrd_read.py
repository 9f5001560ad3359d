#!/usr/bin/env python3
"""Reads every cell of every sheet of an Excel workbook with xlrd and touches each value as
bench/xls_read.cpp does: xlrd's side of the reading comparison (bench/compare.py xls).

    python3 bench/xlrd_read.py orders.xls
"""

import sys

import xlrd


def main():
    book = xlrd.open_workbook(sys.argv[1])
    cells = numbers = texts = others = text_bytes = 0
    total = 0.0
    for sheet in book.sheets():
        for r in range(sheet.nrows):
            for kind, value in zip(sheet.row_types(r), sheet.row_values(r)):
                if kind == xlrd.XL_CELL_EMPTY:
                    continue
                cells += 1
                if kind in (xlrd.XL_CELL_NUMBER, xlrd.XL_CELL_DATE):
                    numbers += 1
                    total += value
                elif kind == xlrd.XL_CELL_TEXT:
                    texts += 1
                    text_bytes += len(value.encode("utf-8"))
                else:
                    others += 1
    print(f"{cells} cells: {numbers} numbers (sum {total:.2f}), {texts} texts ({text_bytes} bytes), {others} others")


if __name__ == "__main__":
    main()
