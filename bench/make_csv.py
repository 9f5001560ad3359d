#!/usr/bin/env python3
"""Writes a realistic CSV for the text import benchmarks.

Columns: an integer id, an amount with thousand separators inside quotes ("1,234.56"), an ISO date,
a quoted name with commas and sometimes doubled quotes, a plain city, a note that is sometimes quoted
and spans two lines, and a boolean. Lines end in CR LF; the output is the same for the same seed.

    bench/make_csv.py 1000000 -o orders.csv
"""

import argparse
import datetime
import random
import sys

FIRST = ["Ada", "Alan", "Grace", "Edsger", "Barbara", "Donald", "Frances", "Niklaus", "Margaret", "Ken",
         "José", "Zoë", "Håkon", "Chloé"]
LAST = ["Lovelace", "Turing", "Hopper", "Dijkstra", "Liskov", "Knuth", "Allen", "Wirth", "Hamilton",
        "Thompson", "Muñoz", "O'Brien", "Søndergaard"]
CITIES = ["Berlin", "Lisbon", "Chicago", "Osaka", "Lyon", "Zürich", "Kraków", "Toronto", "Perth", "Austin"]
WORDS = ["urgent", "gift wrap", "leave at door", "call first", "fragile", "second attempt", "paid",
         "backorder", "express", "returned"]


def name(rng):
    text = f"{rng.choice(LAST)}, {rng.choice(FIRST)}"
    if rng.random() < 0.1:
        text += ' "Jr."'  # doubled inside the quotes below
    return '"' + text.replace('"', '""') + '"'


def note(rng):
    r = rng.random()
    if r < 0.05:
        return f'"{rng.choice(WORDS)}\r\n{rng.choice(WORDS)}, {rng.choice(WORDS)}"'
    if r < 0.3:
        return f'"{rng.choice(WORDS)}, {rng.choice(WORDS)}"'
    if r < 0.4:
        return ""
    return rng.choice(WORDS)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=1_000_000, help="data rows (default 1000000)")
    parser.add_argument("-o", "--output", help="file to write (default: standard output)")
    parser.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    args = parser.parse_args()

    rng = random.Random(args.seed)
    start = datetime.date(2000, 1, 1).toordinal()
    out = open(args.output, "w", encoding="utf-8", newline="") if args.output else sys.stdout
    try:
        write = out.write
        write("id,amount,order_date,customer,city,note,paid\r\n")
        chunk = []
        for i in range(1, args.rows + 1):
            amount = rng.randint(0, 250_000_000) / 100
            day = datetime.date.fromordinal(start + rng.randint(0, 9131)).isoformat()
            chunk.append(f'{i},"{amount:,.2f}",{day},{name(rng)},{rng.choice(CITIES)},{note(rng)},'
                         f'{"true" if rng.random() < 0.5 else "false"}\r\n')
            if len(chunk) == 10_000:
                write("".join(chunk))
                chunk.clear()
        write("".join(chunk))
    finally:
        if out is not sys.stdout:
            out.close()


if __name__ == "__main__":
    main()
