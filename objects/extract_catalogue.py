#!/usr/bin/env python3
"""Extract the object catalogue of the management tree into objects/catalogue.tsv.

The catalogue stands in the design document as markdown tables, one per
domain, with the columns: object, ops, path, app, parent, index, entity.
This script copies every row as it stands into a tab-separated table and
checks the table against the figures that the document gives for the tree as
a whole (object counts, index counts, depths, modules, owners, wide records).

    extract_catalogue.py DOCUMENT [-o catalogue.tsv]   write the table
    extract_catalogue.py DOCUMENT --check catalogue.tsv  compare, write nothing

Either way the figures are checked; any difference ends with status 1.
"""

import argparse
import re
import sys
from collections import Counter, defaultdict

COLUMNS = ["name", "ops", "path", "app", "parent", "index", "entity"]
FIRST_DOMAIN = "Object catalogue: administration and identity"
TOKEN = re.compile(r"^([usbpi])(\d+)(?:\*(\d+))?(?:@(\d+))?$")


def read_rows(document):
    """Rows of the catalogue tables, in document order, with the section each came from."""
    rows = []
    in_catalogue = False
    section = None
    with open(document, encoding="utf-8") as f:
        for lineno, line in enumerate(f, 1):
            if line.startswith("# "):
                title = line[2:].strip()
                in_catalogue = "Object catalogue:" in title
                section = title
                continue
            if not in_catalogue or not line.startswith("| `"):
                continue
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if len(cells) != len(COLUMNS):
                sys.exit(f"line {lineno}: expected {len(COLUMNS)} cells, found {len(cells)}")
            cells = [c.strip("`").strip() for c in cells]
            rows.append((lineno, section, cells))
    return rows


def expand(notation):
    """Field list of a record notation: [(kind, width, offset or None)], and the explicit length."""
    fields = []
    length = None
    if notation == "-":
        return fields, length
    for tok in notation.split():
        if re.fullmatch(r"=\d+", tok):
            length = int(tok[1:])
            continue
        m = TOKEN.match(tok)
        if not m:
            raise ValueError(f"unknown field notation {tok!r}")
        kind, width, count, offset = m.group(1), int(m.group(2)), m.group(3), m.group(4)
        if kind in "ui":
            width //= 8
        for i in range(int(count) if count else 1):
            fields.append((kind, width, int(offset) if (offset and i == 0) else None))
    return fields, length


def check(rows):
    """Compares the table with the document's own figures; returns a list of differences."""
    bad = []

    def expect(what, got, want):
        if got != want:
            bad.append(f"{what}: found {got}, expected {want}")

    names = [r[0] for r in rows]
    expect("objects", len(rows), 2415)
    expect("duplicate names", len(names) - len(set(names)), 0)
    ops = Counter(r[1] for r in rows)
    expect("objects with set and get", ops["sg"], 2263)
    expect("objects with exec", ops["e"], 152)
    expect("other ops", len(rows) - ops["sg"] - ops["e"], 0)

    with_index = [r for r in rows if r[5] != "-"]
    expect("objects with an index", len(with_index), 1262)
    expect("objects without an index", len(rows) - len(with_index), 1153)
    whole = sum(1 for r in with_index if r[6] == "=" or expand(r[6]) == expand(r[5]))
    expect("objects whose index is the whole record", whole, 444)
    expect("'=' entity without an index", sum(1 for r in rows if r[6] == "=" and r[5] == "-"), 0)

    depth = Counter(len(r[2].split(".")) for r in rows)
    expect("depths", dict(sorted(depth.items())), {1: 1059, 2: 783, 3: 310, 4: 170, 5: 38, 6: 30, 7: 25})

    owners = defaultdict(set)
    for r in rows:
        owners[int(r[2].split(".")[-1], 16) >> 16].add(int(r[3]))
    expect("module numbers of last words", len(owners), 270)
    shared = {hex(m): sorted(a) for m, a in owners.items() if len(a) > 1}
    expect("modules with more than one owner", shared, {"0x2f": [18, 20]})
    expect("owning applications", len({r[3] for r in rows}), 64)

    gaps = [r[0] for r in rows if "@" in r[6] or re.search(r"=\d", r[6])]
    expect("records with gaps", len(gaps), 42)

    def entity_fields(r):
        return expand(r[5] if r[6] == "=" else r[6])[0]

    counts = {r[0]: len(entity_fields(r)) for r in rows}
    wide = sorted(n for n, c in counts.items() if c > 64)
    expect("objects with a third mask word", wide, sorted([
        "aaa_server", "if_if", "logd_traffic_msg_tbl", "logd_export",
        "sslvpn_sslvpn_profile", "vsys_profile", "vsys_vsys_vsys_profile"]))
    expect("most fields", max(counts.values()), 96)
    expect("fields of if_if", counts.get("if_if"), 96)
    texts = [w for r in rows for k, w, _ in entity_fields(r) if k == "s"]
    expect("widest text", max(texts), 34335)

    mgmt = [r for r in rows if r[0].startswith("mgmt_")]
    expect("mgmt_ objects", len(mgmt), 23)
    expect("mgmt_ objects with exec", sum(1 for r in mgmt if r[1] == "e"), 11)
    expect("mgmt_ objects owned by MGD", sum(1 for r in mgmt if r[3] == "2"), 23)

    by_name = {r[0]: r for r in rows}
    for r in rows:
        if r[4] != "-" and r[4] not in by_name:
            bad.append(f"{r[0]}: parent {r[4]} is not in the catalogue")
    bind = by_name.get("aaa_user_bind")
    expect("index of aaa_user_bind", bind and bind[5], "u32 s48 b6 s32")
    return bad


def to_tsv(rows):
    out = ["# " + "\t".join(COLUMNS)]
    out += ["\t".join(r) for r in rows]
    return "\n".join(out) + "\n"


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("document", help="the design document that holds the catalogue tables")
    ap.add_argument("-o", "--output", default=None, help="table to write (default: standard output)")
    ap.add_argument("--check", metavar="TSV", help="compare with this table instead of writing")
    args = ap.parse_args()

    found = read_rows(args.document)
    if not found or found[0][1].split(": ", 1)[-1] != FIRST_DOMAIN:
        sys.exit("no catalogue tables found")
    rows = [cells for _, _, cells in found]
    for lineno, _, cells in found:
        for col, text in zip(COLUMNS, cells):
            if not text or "\t" in text:
                sys.exit(f"line {lineno}: empty or malformed {col} cell")
        for notation in cells[5:]:
            if notation not in ("-", "="):
                try:
                    expand(notation)
                except ValueError as e:
                    sys.exit(f"line {lineno} ({cells[0]}): {e}")

    problems = check(rows)
    for p in problems:
        print("catalogue: " + p, file=sys.stderr)

    text = to_tsv(rows)
    if args.check:
        with open(args.check, encoding="utf-8") as f:
            have = f.read()
        if have != text:
            old = have.splitlines()
            new = text.splitlines()
            for i, (a, b) in enumerate(zip(old, new)):
                if a != b:
                    print(f"{args.check}:{i + 1}: differs from the document:\n  table:    {a}\n  document: {b}",
                          file=sys.stderr)
                    break
            else:
                print(f"{args.check}: {len(old)} lines, the document gives {len(new)}", file=sys.stderr)
            return 1
        print(f"{args.check}: {len(rows)} rows, same as the document", file=sys.stderr)
    elif args.output:
        with open(args.output, "w", encoding="utf-8") as f:
            f.write(text)
        print(f"{args.output}: {len(rows)} rows written", file=sys.stderr)
    else:
        sys.stdout.write(text)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
