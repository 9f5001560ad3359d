#!/usr/bin/env python3
"""Runs whole-process commands side by side, alternating, and reports the median wall time and peak memory.

Each benchmark is a list of (label, setup, command) entries: `setup` (a shell command, not timed)
prepares a fresh destination, `command` is timed. Rounds alternate the tools so that a noisy machine
hurts all of them alike.

    bench/compare.py csv      [--rows N] [--rounds R] [--baseline KVIMPORT] [--one-core]   CSV into a typed SQLite
                                                        table
    bench/compare.py sqlite   [--rows N] [--rounds R]   table to table in SQLite, append and appendupdate
    bench/compare.py check    [--rows N]   the CSV import's tables: the floor's and kvimport's row for row
    bench/compare.py keys     [--rounds R]   appendupdate by a key with and without an index, 10,000 to 100,000 rows
    bench/compare.py memory   peak memory of the CSV import at 100,000, one million and four million rows
    bench/compare.py dbf      [--rows N] [--rounds R]   a dBase table into a typed SQLite table, and read alone
    bench/compare.py xls      [--rows N] [--rounds R]   an Excel workbook into SQLite, and read alone (N <= 65,535)
    bench/compare.py zip      [--rows N] [--rounds R]   a deflated CSV member of a zip archive written to stdout
    bench/compare.py xml      [--megabytes M] [--rounds R]   an XML document's rows into SQLite, and peak memory
    bench/compare.py sav      [--rows N] [--rounds R]   an SPSS file of 20 variables read and into SQLite, beside pspp
    bench/compare.py workbook [--rows N] [--rounds R]   an .xlsx and its .ods twin into SQLite, beside openpyxl and
                                                        LibreOffice
    bench/compare.py pg       [--rows N] [--rounds R]   CSV into a typed PostgreSQL table, append and appendupdate

The CSV comparison includes the floor (bench/floor_import.cpp, from the bench build given by --floor) and
DuckDB's Node client (after bench/setup.sh) when they are there; the table-to-table one includes its floor
(bench/floor_copy.cpp, given by --floor-copy) when it is there; the dBase one includes the library's reader alone
(bench/dbf_read.cpp, given by --dbf-read), and dbview and Python's dbfread (after bench/setup.sh) when they
are there. The workbook one (65,000 rows unless --rows says otherwise) includes the library's reader alone
(bench/xls_read.cpp, given by --xls-read), FreeXL's (bench/freexl_read.c, given by --freexl-read, built when
libfreexl is installed) and Python's xlrd (after bench/setup.sh), and adds the peak memory of kvimport's
reader and import measured by /usr/bin/time. The zip one (1,300,000 CSV rows, about 100 MB, unless --rows says
otherwise) sets the library's reader (bench/zip_inflate.cpp, given by --zip-inflate), streamed and whole, beside
`unzip -p` (after bench/setup.sh) and Python's zipfile. The XML one (100 MB unless --megabytes says otherwise)
sets kvimport beside Python's xml.etree.ElementTree.iterparse with executemany (bench/xml_etree.py), adds the
peak memory of both at 10 MB and at the full size, and checks that the two tables hold the same rows.
The SPSS one (after bench/setup.sh, which installs pspp)
has pspp generate the cases (bench/make_sav.py) and saves them uncompressed, bytecode- and zlib-compressed;
each is read by the library's reader (bench/sav_read.cpp, given by --sav-read) and converted to CSV by
pspp-convert, and the bytecode file is imported into SQLite beside pspp-convert followed by sqlite3's
.import; the peak memory of reading and importing is measured at N cases and at N/10.
The Excel 2007+ one (after bench/setup.sh; 200,000 rows of 10 columns unless --rows says otherwise) has openpyxl
write the workbook in write-only mode (bench/make_xlsx.py) and LibreOffice convert it to .ods; kvimport imports
each into SQLite, and the library's reader (bench/xls_read.cpp, given by --xls-read) reads every value, beside
openpyxl reading every value in read-only mode (bench/openpyxl_read.py) and LibreOffice converting the workbook
to CSV; the peak memory of kvimport's runs is measured.
The PostgreSQL one starts a throwaway cluster of its own (initdb into a temporary folder, a Unix socket there,
no TCP port; run as the postgres user when run as root), removed at the end. The orders CSV, its amounts
written without grouping so that \\copy reads them, goes into a typed table beside psql's \\copy; then half its
rows, changed, by key (appendupdate) into the full table beside \\copy into a staging table followed by
INSERT ... ON CONFLICT DO UPDATE.
"""

import argparse
import atexit
import csv
import glob
import itertools
import json
import os
import shlex
import shutil
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


GNU_TIME = "/usr/bin/time"


def run_timed(command):
    # A child forked from this Python process starts with Python's pages, which its peak memory would count
    # after the exec: GNU time, a small process, forks the command and reports its peak instead.
    with tempfile.NamedTemporaryFile(mode="r", suffix=".peak") as peak:
        timed = os.path.exists(GNU_TIME)
        wrapped = f"{GNU_TIME} -f %M -o {peak.name} sh -c {shlex.quote(command)}" if timed else command
        start = time.monotonic()
        proc = subprocess.Popen(wrapped, shell=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        _, status, usage = os.wait4(proc.pid, 0)
        elapsed = time.monotonic() - start
        err = proc.stderr.read().decode(errors="replace")
        if os.waitstatus_to_exitcode(status) != 0:
            sys.exit(f"failed: {command}\n{err}")
        memory = int(peak.read().strip() or 0) / 1024.0 if timed else usage.ru_maxrss / 1024.0
    return elapsed, memory, usage.ru_utime + usage.ru_stime  # s, MiB, s


def compare(title, entries, rounds, versus="kvimport"):
    results = {label: [] for label, _, _ in entries}
    for _ in range(rounds):
        for label, setup, command in entries:
            subprocess.run(setup, shell=True, check=True)
            results[label].append(run_timed(command))
    base = [t for t, _, _ in results[entries[0][0]]]
    print(f"\n### {title}\n")
    # CPU time (user and system, all threads) is what the load of a shared machine changes least.
    print("| tool | wall time (median of %d) | CPU time | peak memory | time vs. %s |" % (rounds, versus))
    print("|---|---|---|---|---|")
    for label, _, command in entries:
        times = [t for t, _, _ in results[label]]
        memory = max(m for _, m, _ in results[label])
        cpu = statistics.median(c for _, _, c in results[label])
        median = statistics.median(times)
        # Each round's tools ran back to back: their ratio is steadier than the ratio of medians when the
        # machine's speed drifts between rounds.
        ratio = statistics.median(t / b for t, b in zip(times, base))
        print(f"| {label} | {median:.2f} s | {cpu:.2f} s | {memory:.0f} MiB | {ratio:.2f} |")
    print()
    for label, _, command in entries:
        shown = command.replace(ROOT + os.sep, "").replace(sys.executable, "python3")
        print(f"- {label}: `{shown}`")


ORDERS_SCHEMA = ("CREATE TABLE orders(id INTEGER, amount REAL, order_date DATE, customer TEXT, city TEXT, "
                 "note TEXT, paid BOOLEAN)")
DUCKDB_ADAPTER = os.path.join(HERE, "duckdb_import.mjs")


def orders_csv(args, work):
    data = os.path.join(work, f"orders-{args.rows}.csv")
    if not os.path.exists(data):
        subprocess.run([sys.executable, os.path.join(HERE, "make_csv.py"), str(args.rows), "-o", data], check=True)
    return data


def duckdb_installed():
    return shutil.which("node") and os.path.isdir(os.path.join(HERE, "node_modules", "@duckdb", "node-api"))


def csv_benchmark(args, work, kvimport):
    data = orders_csv(args, work)
    schema = ORDERS_SCHEMA
    db = os.path.join(work, "orders.sqlite")
    fresh = f"rm -f {db} && sqlite3 {db} '{schema}'"
    python = (f"{sys.executable} -c \"import csv,sqlite3; c=sqlite3.connect('{db}'); f=open('{data}', newline='', "
              f"encoding='utf-8'); r=csv.reader(f); next(r); c.executemany('INSERT INTO orders VALUES "
              f"(?,?,?,?,?,?,?)', r); c.commit()\"")
    entries = [("kvimport import", fresh, f"{kvimport} import {data} --db {db} --table orders --quiet")]
    if args.baseline:
        entries.append(("kvimport import (baseline build)", fresh,
                        f"{args.baseline} import {data} --db {db} --table orders --quiet"))
    if args.one_core:
        # Both of kvimport's threads on one core: what a machine whose other core is busy leaves it.
        entries.append(("kvimport import, pinned to one core", fresh,
                        f"taskset -c 0 {kvimport} import {data} --db {db} --table orders --quiet"))
    entries += [
        ("sqlite3 .import --csv", fresh, f"sqlite3 {db} '.import --csv --skip 1 {data} orders'"),
        ("Python csv + executemany", fresh, python),
    ]
    if os.path.exists(args.floor):
        entries.append(("floor (bench/floor_import.cpp)", fresh, f"{args.floor} {data} {db}"))
        entries.append(("floor, one transaction", fresh, f"{args.floor} {data} {db} 0"))
    else:
        print(f"(no floor: build {args.floor} with the bench build)", file=sys.stderr)
    if duckdb_installed():
        duck = os.path.join(work, "orders.duckdb")
        entries.append(("DuckDB read_csv (Node client, DuckDB file)", f"rm -f {duck} {duck}.wal",
                        f"node {DUCKDB_ADAPTER} {data} {duck}"))
    else:
        print("(no DuckDB: run bench/setup.sh)", file=sys.stderr)
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
    appends = [
        ("kvimport import", fresh, f"{kvimport} import {source} --source-table items --db {db} --quiet"),
        ("sqlite3 INSERT INTO ... SELECT", fresh, copy),
    ]
    updates = [
        ("kvimport import --mode appendupdate", half,
         f"{kvimport} import {source} --source-table items --db {db} --mode appendupdate --keys ID --quiet"),
        ("sqlite3 INSERT ... ON CONFLICT DO UPDATE", half, upsert),
    ]
    if os.path.exists(args.floor_copy):
        for entries, setup, mode in ((appends, fresh, "append"), (updates, half, "appendupdate")):
            entries.append(("floor (bench/floor_copy.cpp)", setup, f"{args.floor_copy} {source} {db} {mode}"))
            entries.append(("floor, one transaction", setup, f"{args.floor_copy} {source} {db} {mode} 0"))
    else:
        print(f"(no floor: build {args.floor_copy} with the bench build)", file=sys.stderr)
    compare(f"{args.rows:,} rows copied table to table (append)", appends, args.rounds)
    compare(f"{args.rows:,} rows, appendupdate by key over a table holding half of them", updates, args.rounds)


def check_benchmark(args, work, kvimport):
    data = orders_csv(args, work)
    dbs = {}
    for label, command in (("kvimport", f"{kvimport} import {data} --db {{db}} --table orders --quiet"),
                           ("floor", f"{args.floor} {data} {{db}}")):
        db = os.path.join(work, f"check-{label}.sqlite")
        subprocess.run(f"rm -f {db} && sqlite3 {db} '{ORDERS_SCHEMA}'", shell=True, check=True)
        subprocess.run(command.format(db=db), shell=True, check=True)
        dbs[label] = db
    con = sqlite3.connect(dbs["kvimport"])
    con.execute("ATTACH ? AS floor", (dbs["floor"],))
    # Python's values keep SQLite's storage class (int, float, str, None), so a 1 stored as 1.0 or a number
    # stored as its text differs.
    rows = differ = 0
    for ours, floor in itertools.zip_longest(con.execute("SELECT * FROM main.orders ORDER BY id"),
                                             con.execute("SELECT * FROM floor.orders ORDER BY id")):
        rows += 1
        if ours is None or floor is None or ours != floor or list(map(type, ours)) != list(map(type, floor)):
            differ += 1
            if differ <= 5:
                print(f"  kvimport {ours!r}\n  floor    {floor!r}")
    con.close()
    print(f"{rows:,} rows of kvimport's table and the floor's, {differ:,} differ")
    if rows != args.rows or differ:
        sys.exit(1)
    if duckdb_installed():
        # DuckDB's table is in its own file: compare what sums up every column, computed by each engine (the
        # amounts in whole cents, so that the order of the additions does not matter).
        duck = os.path.join(work, "check.duckdb")
        subprocess.run(f"rm -f {duck} {duck}.wal && node {DUCKDB_ADAPTER} {data} {duck}", shell=True, check=True)
        summary = ("SELECT count(*), count(DISTINCT id), sum(CAST(round(amount * 100) AS BIGINT)), min(order_date), max(order_date), "
                   "sum(length(customer)), count(DISTINCT customer), sum(length(city)), count(note), "
                   "sum(length(note)), sum(CAST(paid AS INTEGER)) FROM orders")
        script = ("import('@duckdb/node-api').then(async ({DuckDBInstance}) => { const i = await "
                  f"DuckDBInstance.create(process.argv[1]); const c = await i.connect(); const r = await "
                  f"c.runAndReadAll(\"{summary}\"); console.log(JSON.stringify(r.getRows()[0].map(String))); }})")
        out = subprocess.run(["node", "-e", script, duck], cwd=HERE, check=True, capture_output=True, text=True)
        theirs = json.loads(out.stdout)
        con = sqlite3.connect(os.path.join(work, "check-kvimport.sqlite"))
        mine = [str(v) for v in con.execute(summary).fetchone()]
        con.close()
        same = theirs == mine
        print(f"DuckDB's table {'sums up the same' if same else 'differs'}:\n  kvimport {mine}\n  DuckDB   {theirs}")
        if not same:
            sys.exit(1)


ACCOUNTS_SCHEMA = ("CREATE TABLE accounts(ID INTEGER, NAME TEXT, AMOUNT REAL, CREATED DATE, ACTIVE BOOLEAN, "
                   "NOTE TEXT)")


def accounts_dbf(args, work):
    table = os.path.join(work, f"accounts-{args.rows}.dbf")
    data = os.path.join(work, f"accounts-{args.rows}.csv")
    if not all(map(os.path.exists, (table, table[:-4] + ".dbt", data))):
        subprocess.run([sys.executable, os.path.join(HERE, "make_dbf.py"), str(args.rows), "-o", table, "--csv", data],
                       check=True)
    return table, data


def kvimport_reads(kvimport, path):
    probe = subprocess.run([kvimport, "preview", path, "--rows", "1"], capture_output=True, text=True)
    if probe.returncode != 0:
        reason = (probe.stderr.strip().splitlines() or ["exit status %d" % probe.returncode])[0]
        print(f"(kvimport cannot read .dbf yet, left out: {reason})", file=sys.stderr)
    return probe.returncode == 0


def dbfread_python():
    # Debian's python3-dbfread is for Debian's python3, which need not be the one running this script.
    for python in (sys.executable, "/usr/bin/python3"):
        if subprocess.run([python, "-c", "import dbfread"], capture_output=True).returncode == 0:
            return python
    return None


def keys_benchmark(args, work, kvimport):
    # Half of the rows are already in the table, so every other row is an update found by its key.
    db = os.path.join(work, "keys.sqlite")
    sizes = (10000, 40000, 100000)
    print(f"\n### appendupdate by key over a table holding half of the rows (median of {args.rounds})\n")
    print("| rows | without an index | with an index | without, vs. 10,000 rows |")
    print("|---|---|---|---|")
    first = None
    for n in sizes:
        data = os.path.join(work, f"keys-{n}.csv")
        if not os.path.exists(data):
            with open(data, "w") as out:
                out.write("id,name\n")
                out.writelines(f"{i},name {i}\n" for i in range(1, n + 1))
        command = f"{kvimport} import {data} --db {db} --table t --mode appendupdate --keys id --quiet"
        times = {}
        for index in ("", "CREATE INDEX t_id ON t(id);"):
            setup = (f"rm -f {db} && sqlite3 {db} \"CREATE TABLE t(id INTEGER, name TEXT); {index} WITH RECURSIVE "
                     f"n(i) AS (SELECT 2 UNION ALL SELECT i + 2 FROM n WHERE i + 2 <= {n}) "
                     f"INSERT INTO t SELECT i, 'old ' || i FROM n;\"")
            rounds = []
            for _ in range(args.rounds):
                subprocess.run(setup, shell=True, check=True)
                rounds.append(run_timed(command)[0])
            times[bool(index)] = statistics.median(rounds)
        first = first or times[False]
        print(f"| {n:,} | {times[False]:.3f} s | {times[True]:.3f} s | {times[False] / first:.1f} |")
    print(f"\n- `{command.replace(ROOT + os.sep, '')}` (N = 10,000, 40,000 and 100,000), over "
          "`t(id INTEGER, name TEXT)` holding the even ids, once without and once with `CREATE INDEX t_id ON t(id)`")


def memory_benchmark(args, work, kvimport):
    db = os.path.join(work, "orders.sqlite")
    print("\n### Peak memory of the CSV import\n")
    print("| rows | peak memory | wall time |")
    print("|---|---|---|")
    command = ""
    for n in (100000, 1000000, 4000000):
        args.rows = n
        data = orders_csv(args, work)
        subprocess.run(f"rm -f {db} && sqlite3 {db} '{ORDERS_SCHEMA}'", shell=True, check=True)
        command = f"{kvimport} import {data} --db {db} --table orders --quiet"
        elapsed, memory, _ = run_timed(command)
        print(f"| {n:,} | {memory:.1f} MiB | {elapsed:.2f} s |")
    print(f"\n- `{command.replace(ROOT + os.sep, '').replace('4000000', 'N')}` over files of `bench/make_csv.py N`")


def dbf_benchmark(args, work, kvimport):
    table, data = accounts_dbf(args, work)
    db = os.path.join(work, "accounts.sqlite")
    reads = kvimport_reads(kvimport, table)
    imports = []
    if reads:
        # kvimport creates the table from the declared fields.
        imports.append(("kvimport import", f"rm -f {db}",
                        f"{kvimport} import {table} --db {db} --table accounts --quiet"))
    imports.append(("sqlite3 .import --csv (CSV twin)", f"rm -f {db} && sqlite3 {db} '{ACCOUNTS_SCHEMA}'",
                    f"sqlite3 {db} '.import --csv --skip 1 {data} accounts'"))
    readers = []
    if os.path.exists(args.dbf_read):
        readers.append(("kvimport's reader, typed values (bench/dbf_read.cpp)", "true", f"{args.dbf_read} {table}"))
    else:
        print(f"(no reading program: build {args.dbf_read} with the bench build)", file=sys.stderr)
    if reads:
        readers.append(("kvimport preview --rows all", "true", f"{kvimport} preview {table} --rows all > /dev/null"))
    if shutil.which("dbview"):
        # dbview prints a memo field's block number, never the memo itself.
        readers.append(("dbview -b (memo block numbers only)", "true", f"dbview -b {table} > /dev/null"))
    else:
        print("(no dbview: run bench/setup.sh)", file=sys.stderr)
    python = dbfread_python()
    if python:
        readers.append(("Python dbfread, every record", "true",
                        f"{python} -c \"import collections, dbfread; "
                        f"collections.deque(dbfread.DBF('{table}'), maxlen=0)\""))
    else:
        print("(no dbfread: run bench/setup.sh)", file=sys.stderr)
    size = (os.path.getsize(table) + os.path.getsize(table[:-4] + ".dbt")) / 1e6
    # Without kvimport the ratios are to the first tool that ran.
    compare(f"{args.rows:,} dBase records into a typed SQLite table ({size:.0f} MB with the memo file)", imports,
            args.rounds, "kvimport" if reads else imports[0][0])
    if readers:
        compare(f"{args.rows:,} dBase records read, output discarded", readers, args.rounds,
                "kvimport's reader" if os.path.exists(args.dbf_read) else readers[0][0])


ORDERS_XLS_SCHEMA = ('CREATE TABLE t("id" INTEGER, "amount" REAL, "order_date" DATE, "paid" BOOLEAN, "city" TEXT, '
                     '"status" TEXT, "note" TEXT)')


def python_with(module):
    # Debian's Python modules are for Debian's python3, which need not be the one running this script.
    for python in (sys.executable, "/usr/bin/python3"):
        if subprocess.run([python, "-c", f"import {module}"], capture_output=True).returncode == 0:
            return python
    return None


def orders_xls(args, work):
    book = os.path.join(work, f"orders-{args.rows}.xls")
    data = os.path.join(work, f"orders-xls-{args.rows}.csv")
    if not (os.path.exists(book) and os.path.exists(data)):
        python = python_with("xlwt")
        if not python:
            sys.exit("xlwt is needed to write the workbook (run bench/setup.sh)")
        subprocess.run([python, os.path.join(HERE, "make_xls.py"), str(args.rows), "-o", book, "--csv", data],
                       check=True)
    return book, data


def peak_memory(setup, command, runs=3):
    # GNU time's %M is the largest resident size of the command itself, in KiB; compare()'s column is
    # the largest of its children, which cannot go below the Python that started them.
    peaks = []
    for _ in range(runs):
        subprocess.run(setup, shell=True, check=True)
        out = subprocess.run(["/usr/bin/time", "-f", "%M", *shlex.split(command)], stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, text=True, check=True)
        peaks.append(int(out.stderr.strip().splitlines()[-1]) / 1024.0)
    return max(peaks)


def xls_benchmark(args, work, kvimport):
    if args.rows > 65535:
        sys.exit("a worksheet holds at most 65,535 rows under its header: give --rows")
    book, data = orders_xls(args, work)
    db = os.path.join(work, "orders-xls.sqlite")
    # kvimport creates the table from the header row and the values; sqlite3 gets the same table.
    imports = [
        ("kvimport import", f"rm -f {db}", f"{kvimport} import {book} --db {db} --table t --quiet"),
        ("sqlite3 .import --csv (CSV twin)", f"rm -f {db} && sqlite3 {db} '{ORDERS_XLS_SCHEMA}'",
         f"sqlite3 {db} '.import --csv --skip 1 {data} t'"),
    ]
    readers = []
    if os.path.exists(args.xls_read):
        readers.append(("kvimport's reader (bench/xls_read.cpp)", "true", f"{args.xls_read} {book}"))
    else:
        print(f"(no reading program: build {args.xls_read} with the bench build)", file=sys.stderr)
    if os.path.exists(args.freexl_read):
        readers.append(("FreeXL (bench/freexl_read.c)", "true", f"{args.freexl_read} {book}"))
    else:
        print(f"(no FreeXL: run bench/setup.sh, then build {args.freexl_read} with the bench build)",
              file=sys.stderr)
    python = python_with("xlrd")
    if python:
        script = os.path.join(HERE, "xlrd_read.py")
        readers.append(("Python xlrd (bench/xlrd_read.py)", "true", f"{python} {script} {book}"))
    else:
        print("(no xlrd: run bench/setup.sh)", file=sys.stderr)
    size = os.path.getsize(book)
    title = f"{args.rows:,} workbook rows of 7 cells"
    compare(f"{title} into a SQLite table ({size / 1e6:.1f} MB workbook)", imports, args.rounds)
    if readers:
        compare(f"{title} read, every cell touched", readers, args.rounds,
                "kvimport's reader" if os.path.exists(args.xls_read) else readers[0][0])
    memory = readers[:1] if os.path.exists(args.xls_read) else []
    memory.append(imports[0])
    print("\n### Peak memory (/usr/bin/time -f %M, largest of 3 runs)\n")
    print("| tool | peak memory | vs. the workbook's size |")
    print("|---|---|---|")
    for label, setup, command in memory:
        peak = peak_memory(setup, command)
        print(f"| {label} | {peak:.1f} MiB | {peak * 1024 * 1024 / size:.2f} |")
    rows = subprocess.run(["sqlite3", db, "SELECT count(*) FROM t"], capture_output=True, text=True).stdout.strip()
    print(f"\n(kvimport's table holds {rows} rows)")


def orders_zip(args, work):
    archive = os.path.join(work, f"orders-{args.rows}.zip")
    if not os.path.exists(archive):
        subprocess.run([sys.executable, os.path.join(HERE, "make_zip.py"), str(args.rows), "-o", archive], check=True)
    return archive


def zip_benchmark(args, work, kvimport):
    archive = orders_zip(args, work)
    if not os.path.exists(args.zip_inflate):
        sys.exit(f"build {args.zip_inflate} with the bench build")
    entries = [
        ("kvimport's reader, streamed (bench/zip_inflate.cpp)", "true", f"{args.zip_inflate} {archive} orders.csv"),
        ("kvimport's reader, whole member in memory", "true", f"{args.zip_inflate} {archive} orders.csv --whole"),
    ]
    if shutil.which("unzip"):
        entries.append(("unzip -p", "true", f"unzip -p {archive} orders.csv"))
    else:
        print("(no unzip: run bench/setup.sh)", file=sys.stderr)
    entries.append(("Python zipfile", "true",
                    f"{sys.executable} -c \"import shutil, sys, zipfile; shutil.copyfileobj(zipfile.ZipFile("
                    f"'{archive}').open('orders.csv'), sys.stdout.buffer, 1 << 20)\""))
    with zipfile.ZipFile(archive) as z:
        info = z.getinfo("orders.csv")
    compare(f"A {info.file_size / 1e6:.0f} MB CSV member deflated to {info.compress_size / 1e6:.0f} MB, written to "
            f"standard output (discarded)", entries, args.rounds, "kvimport's reader")


def orders_xml(work, megabytes):
    data = os.path.join(work, f"orders-{megabytes:g}mb.xml")
    if not os.path.exists(data):
        subprocess.run([sys.executable, os.path.join(HERE, "make_xml.py"), "--megabytes", str(megabytes), "-o", data],
                       check=True)
    return data


def xml_benchmark(args, work, kvimport):
    script = os.path.join(HERE, "xml_etree.py")

    def entries(data, db=os.path.join(work, "orders-xml.sqlite")):
        # The table exists beforehand for both, with the same types; kvimport maps its columns by name.
        fresh = f"rm -f {db} && sqlite3 {db} '{ORDERS_SCHEMA}'"
        return [("kvimport import", fresh, f"{kvimport} import {data} --db {db} --table orders --quiet"),
                ("Python ElementTree.iterparse + executemany", fresh, f"{sys.executable} {script} {data} {db}")]

    data = orders_xml(work, args.megabytes)
    rows = int(subprocess.run(["grep", "-c", "<order ", data], capture_output=True, text=True).stdout)
    compare(f"{rows:,} XML rows into a typed SQLite table ({os.path.getsize(data) / 1e6:.0f} MB)", entries(data),
            args.rounds)

    small = orders_xml(work, args.megabytes / 10)
    print("\n### Peak memory (/usr/bin/time -f %M, largest of 3 runs)\n")
    print(f"| tool | {args.megabytes / 10:g} MB | {args.megabytes:g} MB |")
    print("|---|---|---|")
    for (label, setup, small_command), (_, _, command) in zip(entries(small), entries(data)):
        print(f"| {label} | {peak_memory(setup, small_command):.1f} MiB | {peak_memory(setup, command):.1f} MiB |")

    # Both tables hold the same rows, storage classes included.
    dbs = [os.path.join(work, f"check-xml-{i}.sqlite") for i in range(2)]
    for i, db in enumerate(dbs):
        _, setup, command = entries(data, db)[i]
        subprocess.run(setup, shell=True, check=True)
        subprocess.run(command, shell=True, check=True)
    con = sqlite3.connect(dbs[0])
    con.execute("ATTACH ? AS other", (dbs[1],))
    typed = "SELECT *, typeof(amount), typeof(paid) FROM {}.orders"
    differ = sum(con.execute(f"SELECT count(*) FROM ({typed.format(a)} EXCEPT {typed.format(b)})").fetchone()[0]
                 for a, b in (("main", "other"), ("other", "main")))
    count = con.execute("SELECT count(*) FROM main.orders").fetchone()[0]
    con.close()
    print(f"\n{count:,} rows in kvimport's table, {differ:,} differ from the Python script's")
    if differ or count != rows:
        sys.exit(1)


def survey_sav(rows, work):
    prefix = os.path.join(work, f"survey-{rows}")
    files = {"uncompressed": prefix + ".sav", "bytecode": prefix + "-bytecode.sav", "zlib": prefix + ".zsav"}
    if not all(map(os.path.exists, files.values())):
        if not shutil.which("pspp"):
            sys.exit("pspp is needed to write the SPSS files (run bench/setup.sh)")
        subprocess.run([sys.executable, os.path.join(HERE, "make_sav.py"), str(rows), "-o", prefix], check=True)
    return files


def sav_benchmark(args, work, kvimport):
    files = survey_sav(args.rows, work)
    convert = shutil.which("pspp-convert")
    if not convert:
        print("(no pspp-convert: run bench/setup.sh)", file=sys.stderr)
    reader = os.path.exists(args.sav_read)
    if not reader:
        print(f"(no reading program: build {args.sav_read} with the bench build)", file=sys.stderr)
    csv = os.path.join(work, "survey.csv")
    for kind, path in files.items():
        readers = []
        if reader:
            readers.append(("kvimport's reader (bench/sav_read.cpp)", "true", f"{args.sav_read} {path}"))
        if convert:
            readers.append(("pspp-convert to CSV", f"rm -f {csv}", f"{convert} {path} {csv}"))
        if readers:
            compare(f"{args.rows:,} cases of 20 variables read, {kind} ({os.path.getsize(path) / 1e6:.0f} MB)",
                    readers, args.rounds, readers[0][0])
        if convert:
            # pspp-convert may stop early with a message and still exit 0: say how many cases it wrote.
            with open(csv, encoding="utf-8", errors="replace") as f:
                written = sum(1 for _ in f) - 1
            if written != args.rows:
                print(f"\n(pspp-convert wrote {written:,} of the {args.rows:,} cases)")
    db = os.path.join(work, "survey.sqlite")
    path = files["bytecode"]
    imports = [("kvimport import", f"rm -f {db}", f"{kvimport} import {path} --db {db} --table t --quiet")]
    if convert:
        imports.append(("pspp-convert to CSV, then sqlite3 .import", f"rm -f {db} {csv}",
                        f"{convert} {path} {csv} && sqlite3 {db} '.import --csv {csv} t'"))
    compare(f"{args.rows:,} cases of 20 variables into a SQLite table (bytecode file)", imports, args.rounds)
    rows = subprocess.run(["sqlite3", db, "SELECT count(*) FROM t"], capture_output=True, text=True).stdout.strip()
    print(f"\n(the last table holds {rows} rows)")

    # Memory must not grow with the number of cases: the same measures on a tenth of them.
    print("\n### Peak memory (/usr/bin/time -f %M, largest of 3 runs)\n")
    print("| cases | file | kvimport's reader | kvimport import |")
    print("|---|---|---|---|")
    for count in (args.rows // 10, args.rows):
        sized = survey_sav(count, work)
        for kind, path in sized.items():
            read = f"{peak_memory('true', f'{args.sav_read} {path}'):.1f} MiB" if reader else "-"
            imported = peak_memory(f"rm -f {db}", f"{kvimport} import {path} --db {db} --table t --quiet")
            print(f"| {count:,} | {kind}, {os.path.getsize(path) / 1e6:.0f} MB | {read} | {imported:.1f} MiB |")


def soffice_convert(work, to, source, outdir):
    # A profile of its own, so that an office already running elsewhere neither blocks nor serves the run.
    profile = "file://" + os.path.join(work, "soffice-profile")
    return (f"soffice -env:UserInstallation={profile} --headless --norestore --convert-to {to} "
            f"--outdir {outdir} {source}")


def workbook_benchmark(args, work, kvimport):
    python = python_with("openpyxl")
    if not python:
        sys.exit("openpyxl is needed to write the workbook (run bench/setup.sh)")
    book = os.path.join(work, f"orders-{args.rows}.xlsx")
    if not os.path.exists(book):
        subprocess.run([python, os.path.join(HERE, "make_xlsx.py"), str(args.rows), "-o", book], check=True)
    soffice = shutil.which("soffice")
    ods = os.path.join(work, f"orders-{args.rows}.ods")
    if soffice and not os.path.exists(ods):
        subprocess.run(soffice_convert(work, "ods", book, work), shell=True, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    db = os.path.join(work, "orders-workbook.sqlite")
    entries = [("kvimport import .xlsx", f"rm -f {db}", f"{kvimport} import {book} --db {db} --table t --quiet")]
    if soffice and os.path.exists(ods):
        entries.append(("kvimport import .ods", f"rm -f {db}", f"{kvimport} import {ods} --db {db} --table t --quiet"))
    if os.path.exists(args.xls_read):
        entries.append(("kvimport's reader alone, every value (bench/xls_read.cpp)", "true",
                        f"{args.xls_read} {book}"))
    else:
        print(f"(no reading program: build {args.xls_read} with the bench build)", file=sys.stderr)
    entries.append(("openpyxl read-only, every value (bench/openpyxl_read.py)", "true",
                    f"{python} {os.path.join(HERE, 'openpyxl_read.py')} {book}"))
    if soffice:
        csv_dir = os.path.join(work, "workbook-csv")
        entries.append(("LibreOffice headless, to CSV", f"rm -rf {csv_dir}",
                        soffice_convert(work, "csv", book, csv_dir)))
    else:
        print("(no LibreOffice: run bench/setup.sh)", file=sys.stderr)
    size = os.path.getsize(book)
    compare(f"{args.rows:,} workbook rows of 10 cells ({size / 1e6:.1f} MB .xlsx), read whole", entries, args.rounds)
    print("\n### Peak memory (/usr/bin/time -f %M, largest of 3 runs)\n")
    print("| tool | peak memory |")
    print("|---|---|")
    for label, setup, command in entries:
        if label.startswith("kvimport"):
            print(f"| {label} | {peak_memory(setup, command):.1f} MiB |")
    subprocess.run(f"rm -f {db}", shell=True, check=True)
    subprocess.run(entries[0][2], shell=True, check=True)
    rows = subprocess.run(["sqlite3", db, "SELECT count(*) FROM t"], capture_output=True, text=True).stdout.strip()
    types = subprocess.run(["sqlite3", db, "SELECT group_concat(name || ' ' || type, ', ') FROM pragma_table_info('t')"],
                           capture_output=True, text=True).stdout.strip()
    print(f"\n(kvimport's table from the .xlsx holds {rows} rows: {types})")


class PgServer:
    """A throwaway PostgreSQL cluster listening on a Unix socket in a temporary folder only."""

    def __init__(self):
        self.bin = self.find_bin()
        if not self.bin:
            sys.exit("initdb and pg_ctl are needed (run scripts/setup.sh)")
        self.dir = tempfile.mkdtemp(prefix="kvpg-bench-")
        self.owner = []
        if os.geteuid() == 0:  # the server refuses to run as root
            import pwd
            user = pwd.getpwnam("postgres")
            os.chown(self.dir, user.pw_uid, user.pw_gid)
            self.owner = ["runuser", "-u", "postgres", "--"]
        self.data = os.path.join(self.dir, "data")
        atexit.register(self.stop)
        subprocess.run(self.owner + [os.path.join(self.bin, "initdb"), "-D", self.data, "-U", "postgres", "-A", "trust",
                                     "-E", "UTF8", "--locale=C.UTF-8", "--no-sync"], check=True,
                       stdout=subprocess.DEVNULL)
        subprocess.run(self.owner + [os.path.join(self.bin, "pg_ctl"), "-D", self.data, "-l",
                                     os.path.join(self.dir, "server.log"), "-w", "-s", "-o",
                                     f"-c listen_addresses='' -c unix_socket_directories='{self.dir}'", "start"],
                       check=True)
        self.conninfo = f"host={self.dir} port=5432 user=postgres dbname=postgres"
        self.psql = os.path.join(self.bin, "psql")

    @staticmethod
    def find_bin():
        for folder in os.environ.get("PATH", "").split(os.pathsep):
            if os.path.exists(os.path.join(folder, "initdb")) and os.path.exists(os.path.join(folder, "pg_ctl")):
                return os.path.dirname(os.path.realpath(os.path.join(folder, "pg_ctl")))
        found = sorted(glob.glob("/usr/lib/postgresql/*/bin/pg_ctl"), key=lambda p: int(p.split("/")[4]))
        return os.path.dirname(found[-1]) if found else None

    def sql(self, statements):
        return f"{self.psql} -q -X -v ON_ERROR_STOP=1 \"{self.conninfo}\" " + " ".join(
            "-c " + shlex.quote(s) for s in statements)

    def stop(self):
        if self.dir:
            subprocess.run(self.owner + [os.path.join(self.bin, "pg_ctl"), "-D", self.data, "-m", "fast", "-w", "-s",
                                         "stop"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            shutil.rmtree(self.dir, ignore_errors=True)
            self.dir = None


PG_ORDERS_COLUMNS = ("id bigint PRIMARY KEY, amount double precision, order_date date, customer text, city text, "
                     "note text, paid boolean")


def pg_csvs(args, work):
    """The orders CSV with plain amounts, and half its rows (every second id) changed, for the update."""
    data, half = (os.path.join(work, f"orders-pg-{args.rows}.csv"), os.path.join(work, f"orders-pg-half-{args.rows}.csv"))
    if not (os.path.exists(data) and os.path.exists(half)):
        with open(orders_csv(args, work), newline="", encoding="utf-8") as f, \
                open(data, "w", newline="", encoding="utf-8") as out, \
                open(half, "w", newline="", encoding="utf-8") as upd:
            rows, all_out, half_out = csv.reader(f), csv.writer(out), csv.writer(upd)
            header = next(rows)
            all_out.writerow(header)
            half_out.writerow(header)
            for row in rows:
                row[1] = row[1].replace(",", "")
                all_out.writerow(row)
                if int(row[0]) % 2 == 0:
                    row[1] = str(round(float(row[1]) + 1, 2))
                    row[5] = "changed"
                    half_out.writerow(row)
    return data, half


def pg_benchmark(args, work, kvimport):
    data, half = pg_csvs(args, work)
    server = PgServer()
    fresh = server.sql(["DROP TABLE IF EXISTS orders", f"CREATE TABLE orders ({PG_ORDERS_COLUMNS})"])
    full = server.sql(["DROP TABLE IF EXISTS orders", "DROP TABLE IF EXISTS staging",
                       f"CREATE TABLE orders ({PG_ORDERS_COLUMNS})", f"\\copy orders FROM '{data}' CSV HEADER",
                       "VACUUM ANALYZE orders"])
    appends = [
        ("kvimport import", fresh, f"{kvimport} import {data} --db \"{server.conninfo}\" --table orders --quiet"),
        ("psql \\copy", fresh, server.sql([f"\\copy orders FROM '{data}' CSV HEADER"])),
    ]
    updates = [
        ("kvimport import --mode appendupdate", full,
         f"{kvimport} import {half} --db \"{server.conninfo}\" --table orders --mode appendupdate --keys id --quiet"),
        ("psql \\copy + INSERT ... ON CONFLICT DO UPDATE", full,
         server.sql(["CREATE TABLE staging (LIKE orders)", f"\\copy staging FROM '{half}' CSV HEADER",
                     "INSERT INTO orders SELECT * FROM staging ON CONFLICT (id) DO UPDATE SET amount = excluded.amount, "
                     "order_date = excluded.order_date, customer = excluded.customer, city = excluded.city, "
                     "note = excluded.note, paid = excluded.paid"])),
    ]
    compare(f"{args.rows:,} CSV rows into a typed PostgreSQL table ({os.path.getsize(data) / 1e6:.0f} MB)", appends,
            args.rounds)
    compare(f"{args.rows // 2:,} of them changed, appendupdate by key (a primary key on id)", updates, args.rounds)
    server.stop()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("benchmark", choices=["csv", "sqlite", "check", "keys", "memory", "dbf", "xls", "zip",
                                              "xml", "sav", "workbook", "pg"])
    parser.add_argument("--rows", type=int,
                        help="rows (default 1000000; 65000 for xls, 1300000 for zip, 200000 for workbook)")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--megabytes", type=float, default=100, help="size of the XML document (default 100)")
    parser.add_argument("--kvimport", default=os.path.join(ROOT, "build", "kvimport"))
    parser.add_argument("--baseline", help="another kvimport build to time beside this one (csv only)")
    parser.add_argument("--one-core", action="store_true", help="also time kvimport pinned to one core (csv only)")
    parser.add_argument("--floor", default=os.path.join(ROOT, "build-bench", "bench", "floor_import"))
    parser.add_argument("--floor-copy", default=os.path.join(ROOT, "build-bench", "bench", "floor_copy"))
    parser.add_argument("--dbf-read", default=os.path.join(ROOT, "build-bench", "bench", "dbf_read"))
    parser.add_argument("--xls-read", default=os.path.join(ROOT, "build-bench", "bench", "xls_read"))
    parser.add_argument("--sav-read", default=os.path.join(ROOT, "build-bench", "bench", "sav_read"))
    parser.add_argument("--freexl-read", default=os.path.join(ROOT, "build-bench", "bench", "freexl_read"))
    parser.add_argument("--zip-inflate", default=os.path.join(ROOT, "build-bench", "bench", "zip_inflate"))
    parser.add_argument("--work", default=os.path.join(ROOT, "out", "bench"))
    args = parser.parse_args()
    if args.rows is None:
        args.rows = {"xls": 65000, "zip": 1300000, "workbook": 200000}.get(args.benchmark, 1000000)
    for tool in ("sqlite3", args.kvimport):
        if not shutil.which(tool):
            sys.exit(f"{tool} is needed (run scripts/setup.sh)")
    os.makedirs(args.work, exist_ok=True)
    benchmarks = {"csv": csv_benchmark, "sqlite": sqlite_benchmark, "check": check_benchmark,
                  "keys": keys_benchmark, "memory": memory_benchmark, "dbf": dbf_benchmark,
                  "xls": xls_benchmark, "zip": zip_benchmark, "xml": xml_benchmark, "sav": sav_benchmark,
                  "workbook": workbook_benchmark, "pg": pg_benchmark}
    benchmarks[args.benchmark](args, args.work, args.kvimport)


if __name__ == "__main__":
    main()
