#!/usr/bin/env python3
"""Writes SPSS system files for the .sav benchmarks by having pspp generate the cases.

The script writes a pspp syntax file whose input program makes N cases of 20 variables: whole numbers
(small ones the bytecode compresses, large ones it cannot), amounts with decimals, a labelled code with a
user-missing value, dates, date-times and times, and strings of 8 to 40 bytes. It then saves the same
cases three times: uncompressed (PREFIX.sav), bytecode-compressed (PREFIX-bytecode.sav) and
zlib-compressed (PREFIX.zsav). The values follow from the case number alone, so the files are the same
from run to run.

    bench/make_sav.py 1000000 -o work/survey
"""

import argparse
import os
import subprocess
import sys

SYNTAX = """\
INPUT PROGRAM.
NUMERIC id age visits amount price score ratio income region status weight
        born joined stamp spent.
STRING name (A20) /city (A12) /code (A8) /email (A32) /note (A40).
LOOP #i = 1 TO {rows}.
COMPUTE id = #i.
COMPUTE age = MOD(#i * 7, 80) + 18.
COMPUTE visits = MOD(#i * 13, 50).
COMPUTE amount = MOD(#i * 7919, 1000000) / 100.
COMPUTE price = MOD(#i * 31, 10000) / 4.
COMPUTE score = MOD(#i * 17, 1000) / 10.
COMPUTE ratio = MOD(#i, 997) / 997.
COMPUTE income = 20000 + MOD(#i * 104729, 180000).
COMPUTE region = MOD(#i, 9) + 1.
COMPUTE status = MOD(#i, 5).
COMPUTE weight = 50 + MOD(#i * 3, 700) / 10.
COMPUTE born = DATE.DMY(1 + MOD(#i, 28), 1 + MOD(#i, 12), 1930 + MOD(#i, 70)).
COMPUTE joined = DATE.DMY(1 + MOD(#i * 3, 28), 1 + MOD(#i * 5, 12), 2000 + MOD(#i, 24)).
COMPUTE stamp = joined + MOD(#i * 61, 86400).
COMPUTE spent = MOD(#i * 7, 36000).
COMPUTE name = CONCAT("Person ", LTRIM(STRING(#i, F8.0))).
COMPUTE city = CONCAT("City ", LTRIM(STRING(MOD(#i, 500), F3.0))).
COMPUTE code = CONCAT("C", LTRIM(STRING(MOD(#i * 11, 100000), F5.0))).
COMPUTE email = CONCAT("person", LTRIM(STRING(#i, F8.0)), "@example.org").
DO IF MOD(#i, 4) = 0.
COMPUTE note = CONCAT("Called back on day ", LTRIM(STRING(MOD(#i, 30), F2.0))).
END IF.
END CASE.
END LOOP.
END FILE.
END INPUT PROGRAM.
FORMATS id income (F10.0) age visits region status (F3.0) amount price weight (F10.2) score (F6.1)
        ratio (F8.4) born joined (DATE11) stamp (DATETIME20) spent (TIME8).
VARIABLE LABELS age "Age in years" region "Region of residence" status "Customer status".
VALUE LABELS region 1 "North" 2 "East" 3 "South" 4 "West" 5 "Centre" 6 "Coast" 7 "Hills" 8 "Islands"
        9 "Abroad" /status 0 "New" 1 "Active" 2 "Dormant" 3 "Closed" 4 "Unknown".
MISSING VALUES status (4).
SAVE OUTFILE="{prefix}.sav" /UNCOMPRESSED.
SAVE OUTFILE="{prefix}-bytecode.sav" /COMPRESSED.
SAVE OUTFILE="{prefix}.zsav" /ZCOMPRESSED.
"""


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", type=int)
    parser.add_argument("-o", "--output", required=True, help="the files' common path without extension")
    args = parser.parse_args()
    if not args.rows > 0:
        sys.exit("the number of cases must be positive")
    syntax = args.output + ".sps"
    with open(syntax, "w", encoding="utf-8") as f:
        f.write(SYNTAX.format(rows=args.rows, prefix=os.path.abspath(args.output)))
    subprocess.run(["pspp", "-O", "format=txt", "-o", "/dev/null", syntax], check=True)


if __name__ == "__main__":
    main()
