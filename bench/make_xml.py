#!/usr/bin/env python3
"""Writes a record-shaped XML document for the XML import benchmarks.

One <order> element per row under <orders>: the id and a paid flag as attributes, then an amount, an
ISO date, a customer's name (with "&amp;", "&quot;" and "&apos;" to decode), a city (some UTF-8 beyond
ASCII) and a note that is sometimes missing, sometimes two lines, sometimes a CDATA section holding
markup. Indented with blanks, lines ending in LF; the output is the same for the same seed, and memory
stays flat whatever the size.

    bench/make_xml.py --megabytes 100 -o orders.xml
    bench/make_xml.py 1000 -o small.xml
"""

import argparse
import datetime
import random
import sys

FIRST = ["Ada", "Alan", "Grace", "Edsger", "Barbara", "Donald", "Frances", "Niklaus", "Margaret", "Ken",
         "José", "Zoë", "Håkon", "Chloé"]
LAST = ["Lovelace", "Turing", "Hopper", "Dijkstra", "Liskov", "Knuth", "Allen", "Wirth", "Hamilton",
        "Thompson", "Muñoz", "O&apos;Brien", "Søndergaard", "Smith &amp; Sons"]
CITIES = ["Berlin", "Lisbon", "Chicago", "Osaka", "Lyon", "Zürich", "Kraków", "Toronto", "Perth", "Austin"]
WORDS = ["urgent", "gift wrap", "leave at door", "call first", "fragile", "second attempt", "paid",
         "backorder", "express", "returned"]


def note(rng):
    r = rng.random()
    if r < 0.1:
        return ""
    if r < 0.15:
        return f"    <note>{rng.choice(WORDS)}\n{rng.choice(WORDS)}</note>\n"
    if r < 0.2:
        return f"    <note><![CDATA[<b>{rng.choice(WORDS)}</b> & more]]></note>\n"
    return f"    <note>{rng.choice(WORDS)}, {rng.choice(WORDS)}</note>\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=0, help="rows to write (or give --megabytes)")
    parser.add_argument("--megabytes", type=float, default=0, help="write rows until the file is this large")
    parser.add_argument("-o", "--output", help="file to write (default: standard output)")
    parser.add_argument("--seed", type=int, default=1, help="random seed (default 1)")
    args = parser.parse_args()
    if not args.rows and not args.megabytes:
        parser.error("give a number of rows or --megabytes")

    rng = random.Random(args.seed)
    start = datetime.date(2000, 1, 1).toordinal()
    limit = int(args.megabytes * 1e6)
    out = open(args.output, "w", encoding="utf-8", newline="") if args.output else sys.stdout
    try:
        written = 0
        chunk = ['<?xml version="1.0" encoding="UTF-8"?>\n<orders>\n']
        i = 0
        while (args.rows and i < args.rows) or (not args.rows and written < limit):
            i += 1
            amount = rng.randint(0, 250_000_000) / 100
            day = datetime.date.fromordinal(start + rng.randint(0, 9131)).isoformat()
            customer = f"{rng.choice(LAST)}, {rng.choice(FIRST)}"
            if rng.random() < 0.1:
                customer += " &quot;Jr.&quot;"
            chunk.append(f'  <order id="{i}" paid="{"true" if rng.random() < 0.5 else "false"}">\n'
                         f"    <amount>{amount:.2f}</amount>\n"
                         f"    <order_date>{day}</order_date>\n"
                         f"    <customer>{customer}</customer>\n"
                         f"    <city>{rng.choice(CITIES)}</city>\n"
                         f"{note(rng)}"
                         "  </order>\n")
            if len(chunk) == 10_000:
                text = "".join(chunk)
                written += len(text.encode("utf-8"))
                out.write(text)
                chunk.clear()
        chunk.append("</orders>\n")
        out.write("".join(chunk))
    finally:
        if out is not sys.stdout:
            out.close()


if __name__ == "__main__":
    main()
