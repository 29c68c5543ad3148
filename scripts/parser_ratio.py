#!/usr/bin/env python3
"""Prints the parser benchmark as a table: ours, http-parser's, and the ratio."""
import json
import sys

runs = json.load(open(sys.argv[1]))["benchmarks"]
table = {}
for run in runs:
    family, _, args = run["name"].partition("/")
    label = run.get("label", "")
    chunk = args.split("/")[1] if "/" in args else "0"
    key = (label, "whole" if chunk == "0" else chunk + "-byte chunks")
    table.setdefault(key, {})[family] = run

print(f"{'input':28} {'feed':18} {'relay req/s':>12} {'relay MB/s':>10} "
      f"{'http-parser req/s':>18} {'MB/s':>8} {'ratio':>6}")
for (label, feed), row in table.items():
    ours, peer = row.get("BM_RelayRequestParser"), row.get("BM_HttpParserTokenise")
    if not ours or not peer:
        continue
    ratio = ours["items_per_second"] / peer["items_per_second"]
    print(f"{label:28} {feed:18} {ours['items_per_second']:12.0f} "
          f"{ours['bytes_per_second'] / 1e6:10.1f} {peer['items_per_second']:18.0f} "
          f"{peer['bytes_per_second'] / 1e6:8.1f} {ratio:6.2f}")
