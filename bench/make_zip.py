#!/usr/bin/env python3
"""Writes a zip archive holding one deflated CSV member, for the zip reading benchmark.

The member is the CSV of bench/make_csv.py (1,300,000 rows make about 100 MB), named orders.csv and
deflated by Python's zipfile at its default level, as most zip writers do.

    bench/make_zip.py 1300000 -o orders.zip
"""

import argparse
import os
import subprocess
import sys
import tempfile
import zipfile

HERE = os.path.dirname(os.path.abspath(__file__))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=1_300_000, help="CSV rows (default 1300000)")
    parser.add_argument("-o", "--output", required=True, help="the archive to write")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as work:
        data = os.path.join(work, "orders.csv")
        subprocess.run([sys.executable, os.path.join(HERE, "make_csv.py"), str(args.rows), "-o", data], check=True)
        with zipfile.ZipFile(args.output, "w", zipfile.ZIP_DEFLATED) as archive:
            archive.write(data, "orders.csv")


if __name__ == "__main__":
    main()
