#!/usr/bin/env python3
"""Writes an Excel 97-2003 workbook (BIFF8) of one sheet for the workbook benchmarks, with Debian's xlwt.

A header row, then ROWS rows: id (integer), amount (two decimals, some negative), order_date (a date
number with a date format), paid (a boolean), city (one of 50) and status (one of 5), which repeat and so
are shared strings, and note, a text that is unique in most rows. With --csv, the same rows are also
written as CSV with a header (dates as YYYY-MM-DD, booleans as 1/0) for the tools that import CSV. The
output is the same for the same seed. A sheet holds at most 65,536 rows, the header included.

    bench/make_xls.py 65000 -o orders.xls --csv orders.csv
"""

import argparse
import csv
import datetime
import random

import xlwt

HEADER = ["id", "amount", "order_date", "paid", "city", "status", "note"]
CITIES = [f"{name} {district}" for name in ("Porto", "Lyon", "Graz", "Turku", "Gent", "Cork", "Brno", "Split",
                                            "Malmo", "Bergen") for district in ("North", "South", "East", "West",
                                                                                "Centre")]
STATUSES = ["new", "paid", "shipped", "returned", "cancelled"]
WORDS = ["gift wrap", "leave at door", "call first", "fragile", "second attempt", "backorder", "express",
         "invoice sent", "by courier", "urgent"]
MAX_ROWS = 65_535


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=65_000, help="data rows (default 65000)")
    parser.add_argument("-o", "--output", required=True, help="workbook to write")
    parser.add_argument("--csv", help="also write the rows to this CSV file")
    parser.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    args = parser.parse_args()
    if not 0 <= args.rows <= MAX_ROWS:
        parser.error(f"a sheet holds at most {MAX_ROWS:,} data rows")

    rng = random.Random(args.seed)
    book = xlwt.Workbook(encoding="utf-8")
    sheet = book.add_sheet("orders")
    date_style = xlwt.easyxf(num_format_str="YYYY-MM-DD")
    amount_style = xlwt.easyxf(num_format_str="#,##0.00")
    for column, name in enumerate(HEADER):
        sheet.write(0, column, name)
    start = datetime.date(1995, 1, 1).toordinal()
    text = open(args.csv, "w", encoding="utf-8", newline="") if args.csv else None
    writer = csv.writer(text, lineterminator="\r\n") if text else None
    if writer:
        writer.writerow(HEADER)
    for i in range(1, args.rows + 1):
        amount = rng.randint(-50_000, 25_000_000) / 100
        day = datetime.date.fromordinal(start + rng.randint(0, 11000))
        paid = rng.random() < 0.7
        city = rng.choice(CITIES)
        status = rng.choice(STATUSES)
        # A counter in the note keeps most notes unique, so the shared-string table grows with the rows.
        note = f"{rng.choice(WORDS)} #{rng.randint(1, 10_000_000)}"
        row = sheet.row(i)
        row.write(0, i)
        row.write(1, amount, amount_style)
        row.write(2, day, date_style)
        row.write(3, paid)
        row.write(4, city)
        row.write(5, status)
        row.write(6, note)
        if i % 1000 == 0:
            sheet.flush_row_data()  # keeps xlwt's memory flat
        if writer:
            writer.writerow([i, f"{amount:.2f}", day.isoformat(), int(paid), city, status, note])
    book.save(args.output)
    if text:
        text.close()


if __name__ == "__main__":
    main()
