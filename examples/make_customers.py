#!/usr/bin/env python3
"""Writes examples/customers.csv, the bundled example of the README's first command.

The same rows every time (a fixed seed): ids, names with accents, e-mail addresses, cities, ISO signup
dates, balances with thousand separators inside quotes, a VIP flag, and notes with commas, doubled
quotes and the odd line break.

    examples/make_customers.py [ROWS] [-o FILE]
"""

import argparse
import datetime
import random

FIRST = ["Ada", "Alan", "Grace", "Edsger", "Barbara", "Donald", "Frances", "Niklaus", "Margaret", "Ken",
         "José", "Zoë", "Håkon", "Chloé", "Amara", "Kenji", "Priya", "Mateus", "Ingrid", "Tomasz"]
LAST = ["Lovelace", "Turing", "Hopper", "Dijkstra", "Liskov", "Knuth", "Allen", "Wirth", "Hamilton",
        "Thompson", "Muñoz", "O'Brien", "Søndergaard", "Okafor", "Tanaka", "Sharma", "Costa", "Berg", "Nowak"]
PLACES = [("Berlin", "Germany"), ("Lisbon", "Portugal"), ("Chicago", "USA"), ("Osaka", "Japan"),
          ("Lyon", "France"), ("Zürich", "Switzerland"), ("Kraków", "Poland"), ("Toronto", "Canada"),
          ("Perth", "Australia"), ("Lagos", "Nigeria"), ("Pune", "India"), ("São Paulo", "Brazil")]
NOTES = ["", "", "", "prefers e-mail", "call after 5pm, not before", 'asked for "paper" invoices',
         "moved offices\nnew address pending", "VIP since launch", "pays by transfer, 30 days"]


def quote(text):
    if any(c in text for c in ',"\n'):
        return '"' + text.replace('"', '""') + '"'
    return text


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=3000)
    parser.add_argument("-o", "--output", default="examples/customers.csv")
    args = parser.parse_args()
    rng = random.Random(20261123)
    start = datetime.date(2015, 1, 1)
    with open(args.output, "w", encoding="utf-8", newline="") as out:
        out.write("customer_id,first_name,last_name,email,city,country,signup_date,balance,vip,notes\r\n")
        for i in range(1, args.rows + 1):
            first, last = rng.choice(FIRST), rng.choice(LAST)
            city, country = rng.choice(PLACES)
            email = f"{first}.{last}{i}@example.com".lower().replace("'", "")
            signup = start + datetime.timedelta(days=rng.randrange(4000))
            balance = f"{rng.uniform(-500, 25000):,.2f}"
            vip = "true" if rng.random() < 0.1 else "false"
            fields = [str(i), first, quote(last), email, city, country, signup.isoformat(), quote(balance), vip,
                      quote(rng.choice(NOTES))]
            out.write(",".join(fields) + "\r\n")


if __name__ == "__main__":
    main()
