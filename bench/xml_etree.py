#!/usr/bin/env python3
"""Imports the <order> rows of bench/make_xml.py's document into an SQLite table with Python's
xml.etree.ElementTree.iterparse and executemany, as a script written for that one layout would: each
finished <order> becomes a typed tuple and is cleared, and the rows go in batches of 10,000 in one
transaction. Python's side of bench/compare.py xml.

    python3 bench/xml_etree.py orders.xml orders.sqlite
"""

import sqlite3
import sys
import xml.etree.ElementTree as ET


def main():
    path, database = sys.argv[1], sys.argv[2]
    con = sqlite3.connect(database)
    insert = "INSERT INTO orders(id, amount, order_date, customer, city, note, paid) VALUES (?,?,?,?,?,?,?)"
    batch = []
    root = None
    for event, elem in ET.iterparse(path, events=("start", "end")):
        if root is None:
            root = elem
        if event != "end" or elem.tag != "order":
            continue
        amount = elem.findtext("amount")
        batch.append((int(elem.get("id")), float(amount) if amount else None, elem.findtext("order_date"),
                      elem.findtext("customer"), elem.findtext("city"), elem.findtext("note"),
                      elem.get("paid") == "true"))
        root.clear()  # the finished rows, so that memory stays flat
        if len(batch) == 10_000:
            con.executemany(insert, batch)
            batch.clear()
    con.executemany(insert, batch)
    con.commit()
    con.close()


if __name__ == "__main__":
    main()
