#!/usr/bin/env python3
"""Runs whole-process commands side by side, alternating, and reports the median wall time and peak memory.

Each benchmark is a list of (label, setup, command) entries: `setup` (a shell command, not timed)
prepares a fresh destination, `command` is timed. Rounds alternate the tools so that a noisy machine
hurts all of them alike.

    bench/compare.py csv      [--rows N] [--rounds R] [--baseline KVIMPORT]   CSV into a typed SQLite table
    bench/compare.py sqlite   [--rows N] [--rounds R]   table to table in SQLite, append and appendupdate
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def run_timed(command):
    start = time.monotonic()
    proc = subprocess.Popen(command, shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    elapsed = time.monotonic() - start
    err = proc.stderr.read().decode(errors="replace")
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"failed: {command}\n{err}")
    return elapsed, usage.ru_maxrss / 1024.0  # MiB


def compare(title, entries, rounds):
    results = {label: [] for label, _, _ in entries}
    for _ in range(rounds):
        for label, setup, command in entries:
            subprocess.run(setup, shell=True, check=True)
            results[label].append(run_timed(command))
    base = [t for t, _ in results[entries[0][0]]]
    print(f"\n### {title}\n")
    print("| tool | wall time (median of %d) | peak memory | time vs. kvimport |" % rounds)
    print("|---|---|---|---|")
    for label, _, command in entries:
        times = [t for t, _ in results[label]]
        memory = max(m for _, m in results[label])
        median = statistics.median(times)
        # Each round's tools ran back to back: their ratio is steadier than the ratio of medians when the
        # machine's speed drifts between rounds.
        ratio = statistics.median(t / b for t, b in zip(times, base))
        print(f"| {label} | {median:.2f} s | {memory:.0f} MiB | {ratio:.2f} |")
    print()
    for label, _, command in entries:
        shown = command.replace(ROOT + os.sep, "").replace(sys.executable, "python3")
        print(f"- {label}: `{shown}`")


def csv_benchmark(args, work, kvimport):
    data = os.path.join(work, f"orders-{args.rows}.csv")
    if not os.path.exists(data):
        subprocess.run([sys.executable, os.path.join(HERE, "make_csv.py"), str(args.rows), "-o", data], check=True)
    schema = ("CREATE TABLE orders(id INTEGER, amount REAL, order_date DATE, customer TEXT, city TEXT, "
              "note TEXT, paid BOOLEAN)")
    db = os.path.join(work, "orders.sqlite")
    fresh = f"rm -f {db} && sqlite3 {db} '{schema}'"
    python = (f"{sys.executable} -c \"import csv,sqlite3; c=sqlite3.connect('{db}'); f=open('{data}', newline='', "
              f"encoding='utf-8'); r=csv.reader(f); next(r); c.executemany('INSERT INTO orders VALUES "
              f"(?,?,?,?,?,?,?)', r); c.commit()\"")
    entries = [("kvimport import", fresh, f"{kvimport} import {data} --db {db} --table orders --quiet")]
    if args.baseline:
        entries.append(("kvimport import (baseline build)", fresh,
                        f"{args.baseline} import {data} --db {db} --table orders --quiet"))
    entries += [
        ("sqlite3 .import --csv", fresh, f"sqlite3 {db} '.import --csv --skip 1 {data} orders'"),
        ("Python csv + executemany", fresh, python),
    ]
    compare(f"{args.rows:,} CSV rows into a typed SQLite table ({os.path.getsize(data) / 1e6:.0f} MB)", entries,
            args.rounds)


def sqlite_benchmark(args, work, kvimport):
    source = os.path.join(work, f"items-{args.rows}.sqlite")
    schema = "CREATE TABLE items(ID INTEGER PRIMARY KEY, NAME TEXT, PRICE REAL, QTY INTEGER, CREATED DATETIME)"
    if not os.path.exists(source):
        subprocess.run(["sqlite3", source, schema + ";" +
                        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %d) "
                        "INSERT INTO items SELECT i, 'item ' || i, i * 0.25, i %% 100, "
                        "printf('2024-01-%%02d 10:00:00', i %% 28 + 1) FROM n;" % args.rows], check=True)
    db = os.path.join(work, "copy.sqlite")
    fresh = f"rm -f {db} && sqlite3 {db} '{schema}'"
    half = (f"rm -f {db} && sqlite3 {db} \"{schema}; ATTACH '{source}' AS s; "
            f"INSERT INTO items SELECT * FROM s.items WHERE ID % 2 = 0;\"")
    copy = f"sqlite3 {db} \"ATTACH '{source}' AS s; INSERT INTO items SELECT * FROM s.items;\""
    upsert = (f"sqlite3 {db} \"ATTACH '{source}' AS s; INSERT INTO items SELECT * FROM s.items WHERE true "
              f"ON CONFLICT(ID) DO UPDATE SET NAME = excluded.NAME, PRICE = excluded.PRICE, QTY = excluded.QTY, "
              f"CREATED = excluded.CREATED;\"")
    compare(f"{args.rows:,} rows copied table to table (append)", [
        ("kvimport import", fresh, f"{kvimport} import {source} --source-table items --db {db} --quiet"),
        ("sqlite3 INSERT INTO ... SELECT", fresh, copy),
    ], args.rounds)
    compare(f"{args.rows:,} rows, appendupdate by key over a table holding half of them", [
        ("kvimport import --mode appendupdate", half,
         f"{kvimport} import {source} --source-table items --db {db} --mode appendupdate --keys ID --quiet"),
        ("sqlite3 INSERT ... ON CONFLICT DO UPDATE", half, upsert),
    ], args.rounds)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("benchmark", choices=["csv", "sqlite"])
    parser.add_argument("--rows", type=int, default=1000000)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--kvimport", default=os.path.join(ROOT, "build", "kvimport"))
    parser.add_argument("--baseline", help="another kvimport build to time beside this one (csv only)")
    parser.add_argument("--work", default=os.path.join(ROOT, "out", "bench"))
    args = parser.parse_args()
    for tool in ("sqlite3", args.kvimport):
        if not shutil.which(tool):
            sys.exit(f"{tool} is needed (run scripts/setup.sh)")
    os.makedirs(args.work, exist_ok=True)
    {"csv": csv_benchmark, "sqlite": sqlite_benchmark}[args.benchmark](args, args.work, args.kvimport)


if __name__ == "__main__":
    main()
