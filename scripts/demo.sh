#!/usr/bin/env bash
# The main job: imports the bundled example CSV into an SQLite database and shows a few of its rows.
# Run scripts/setup.sh first (it installs what is missing and builds).
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p out
rm -f out/customers.sqlite
echo "$ kvimport import examples/customers.csv --db out/customers.sqlite"
build/kvimport import examples/customers.csv --db out/customers.sqlite
echo
echo "$ sqlite3 out/customers.sqlite 'SELECT ... FROM customers LIMIT 5'"
sqlite3 -header -column out/customers.sqlite \
    "SELECT customer_id, first_name, last_name, city, signup_date, balance, vip FROM customers LIMIT 5"
