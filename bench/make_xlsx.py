#!/usr/bin/env python3
"""Writes an Excel 2007+ workbook (.xlsx) of one sheet for the workbook benchmark, with Debian's openpyxl in
write-only mode.

A header row, then ROWS rows of 10 columns: id (integer), amount (two decimals, some negative), order_date and
ship_date (dates with a date format), paid (a boolean), city (one of 50) and status (one of 5), which repeat
and so are shared strings, quantity (integer), price (decimal) and note (a text that repeats less). The
output is the same for the same seed.

    bench/make_xlsx.py 200000 -o orders.xlsx
"""

import argparse
import datetime
import random

from openpyxl import Workbook
from openpyxl.cell import WriteOnlyCell

from make_xls import CITIES, STATUSES, WORDS  # the same values as the .xls benchmark's

HEADER = ["id", "amount", "order_date", "ship_date", "paid", "city", "status", "quantity", "price", "note"]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=200_000, help="data rows (default 200000)")
    parser.add_argument("-o", "--output", required=True, help="workbook to write")
    parser.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    args = parser.parse_args()

    rng = random.Random(args.seed)
    book = Workbook(write_only=True)
    sheet = book.create_sheet("orders")
    sheet.append(HEADER)
    start = datetime.date(1995, 1, 1)

    def dated(day):
        cell = WriteOnlyCell(sheet, value=day)
        cell.number_format = "yyyy-mm-dd"
        return cell

    for i in range(1, args.rows + 1):
        ordered = start + datetime.timedelta(days=rng.randrange(11000))
        shipped = ordered + datetime.timedelta(days=rng.randrange(30))
        note = f"{rng.choice(WORDS)} {rng.randrange(1000)}"
        sheet.append([i, round(rng.uniform(-500, 5000), 2), dated(ordered), dated(shipped), rng.random() < 0.7,
                      rng.choice(CITIES), rng.choice(STATUSES), rng.randrange(1, 100),
                      round(rng.uniform(0.5, 900), 2), note])
    book.save(args.output)


if __name__ == "__main__":
    main()
