"""Which pages are accessed most, by instructions and by data, and how many accesses the top of them take.

    hottest_pages.py TRACE [PAGES]
"""
import sys

import pandas as pd
import qtrace

name, pages = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 5

# %% Count the accesses to each page; batches keep the memory small however long the trace is.
counts = {"instructions": pd.Series(dtype="int64"), "data": pd.Series(dtype="int64")}
for f in qtrace.batches(name, columns=["address", "data", "has_data"]):
    new = {
        "instructions": qtrace.page(f["address"]).value_counts(),
        "data": qtrace.page(f.loc[f["has_data"], "data"]).value_counts(),
    }
    for kind, times in new.items():
        # `add` would turn page numbers into floats where an index lacks one: sum by group instead.
        both = pd.concat([counts[kind], times]) if len(counts[kind]) else times
        counts[kind] = both.groupby(level=0).sum()

# %% Show the hottest, and their share.
for kind, times in counts.items():
    top = times.sort_values(ascending=False, kind="stable").head(pages)
    print(f"{kind}: {times.sum()} accesses to {len(times)} pages of 4 KiB; the top {len(top)} take {top.sum() / times.sum():.1%}")
    for page, accesses in top.items():
        print(f"  {qtrace.hex(int(page) << 12, digits=16)} {accesses:>10}")
