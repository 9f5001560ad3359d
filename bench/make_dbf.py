#!/usr/bin/env python3
"""Writes a dBase III table with a memo file for the table import benchmarks.

Fields: ID N(10,0), NAME C(30) (with commas and sometimes double quotes), AMOUNT N(12,2) (some
negative), CREATED D, ACTIVE L, and NOTE M: about one record in four has a memo of 20 to 200
characters, some with a line break, in the .dbt beside the table. About 1% of the records are marked
deleted. With --csv, the records that are not deleted are also written as CSV with a header (dates as
YYYY-MM-DD, logicals as true/false, memos quoted), for the tools that import CSV. The output is the
same for the same seed; memory stays flat whatever the number of records.

    bench/make_dbf.py 1000000 -o items.dbf --csv items.csv
"""

import argparse
import datetime
import os
import random
import struct

FIRST = ["Ada", "Alan", "Grace", "Edsger", "Barbara", "Donald", "Frances", "Niklaus", "Margaret", "Ken",
         "Jose", "Zoe", "Hakon", "Chloe"]
LAST = ["Lovelace", "Turing", "Hopper", "Dijkstra", "Liskov", "Knuth", "Allen", "Wirth", "Hamilton",
        "Thompson", "Munoz", "O'Brien", "Sondergaard"]
WORDS = ["urgent", "gift wrap", "leave at door", "call first", "fragile", "second attempt", "paid",
         "backorder", "express", "returned", "ask for \"Sam\"", "invoice sent", "by courier"]
SEPARATORS = [" ", " ", " ", ", ", ", ", "; ", "\r\n"]

# name, type, length, decimals
FIELDS = [("ID", b"N", 10, 0), ("NAME", b"C", 30, 0), ("AMOUNT", b"N", 12, 2), ("CREATED", b"D", 8, 0),
          ("ACTIVE", b"L", 1, 0), ("NOTE", b"M", 10, 0)]
BLOCK = 512


def header(records):
    record_length = 1 + sum(length for _, _, length, _ in FIELDS)
    header_length = 32 + 32 * len(FIELDS) + 1
    # A fixed date of last update keeps the file the same from run to run.
    out = struct.pack("<B3BIHH20x", 0x83, 126, 1, 1, records, header_length, record_length)
    for name, kind, length, decimals in FIELDS:
        out += struct.pack("<11sc4xBB14x", name.encode("ascii"), kind, length, decimals)
    return out + b"\r"


def name(rng):
    text = f"{rng.choice(LAST)}, {rng.choice(FIRST)}"
    if rng.random() < 0.1:
        text += ' "Jr."'
    return text


def memo(rng):
    # Whole words up to a length drawn between 20 and 185, so no memo ends inside a line break.
    target = rng.randint(20, 185)
    text = rng.choice(WORDS)
    while len(text) < target:
        text += rng.choice(SEPARATORS) + rng.choice(WORDS)
    return text


def quoted(text):
    return '"' + text.replace('"', '""') + '"'


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("records", nargs="?", type=int, default=1_000_000, help="records (default 1000000)")
    parser.add_argument("-o", "--output", required=True, help="table to write; the memo file goes beside it")
    parser.add_argument("--csv", help="also write the records that are not deleted to this CSV file")
    parser.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    args = parser.parse_args()

    rng = random.Random(args.seed)
    start = datetime.date(1990, 1, 1).toordinal()
    table = open(args.output, "wb")
    memos = open(os.path.splitext(args.output)[0] + ".dbt", "wb")
    text = open(args.csv, "w", encoding="ascii", newline="") if args.csv else None
    try:
        table.write(header(args.records))
        memos.write(bytes(BLOCK))  # the next free block is known at the end
        block = 1
        if text:
            text.write("ID,NAME,AMOUNT,CREATED,ACTIVE,NOTE\r\n")
        records, rows = [], []
        for i in range(1, args.records + 1):
            deleted = rng.random() < 0.01
            who = name(rng)
            amount = rng.randint(-50_000, 250_000_000) / 100
            day = datetime.date.fromordinal(start + rng.randint(0, 13000))
            active = rng.random() < 0.7
            note = memo(rng) if rng.random() < 0.25 else ""
            if note:
                data = note.encode("ascii") + b"\x1a\x1a"
                used = -(-len(data) // BLOCK)
                memos.write(data.ljust(used * BLOCK, b"\0"))
                pointer = str(block)
                block += used
            else:
                pointer = ""
            records.append(f"{'*' if deleted else ' '}{i:>10}{who:<30}{amount:>12.2f}"
                           f"{day.year:04}{day.month:02}{day.day:02}{'T' if active else 'F'}{pointer:>10}")
            if text and not deleted:
                rows.append(f"{i},{quoted(who)},{amount:.2f},{day.isoformat()},{'true' if active else 'false'},"
                            f"{quoted(note) if note else ''}\r\n")
            if len(records) == 10_000:
                table.write("".join(records).encode("ascii"))
                records.clear()
                if text:
                    text.write("".join(rows))
                    rows.clear()
        table.write("".join(records).encode("ascii") + b"\x1a")
        if text:
            text.write("".join(rows))
        memos.seek(0)
        memos.write(struct.pack("<I", block))
    finally:
        table.close()
        memos.close()
        if text:
            text.close()


if __name__ == "__main__":
    main()
