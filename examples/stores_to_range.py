"""Who stores to a range of addresses: the instructions, how often, and the first of their stores.

    stores_to_range.py TRACE [FIRST LAST]      addresses as 0x...; without, the page with the most stores
"""
import sys

import numpy as np
import qtrace

name = sys.argv[1]

# %% The stores of the trace.
f = qtrace.frame(name, columns=["address", "data", "has_data", "store", "word"])
stores = f[f["store"] & f["has_data"]]

# %% The range: given, or the page that is stored to most.
if len(sys.argv) > 3:
    first, last = int(sys.argv[2], 16), int(sys.argv[3], 16)
else:
    first = int(qtrace.page(stores["data"]).value_counts().index[0]) << 12
    last = first + 4095

# %% Compare with numbers of the same type: a Python number above 2**63 - 1 may become a float.
here = stores[(stores["data"] >= np.uint64(first)) & (stores["data"] <= np.uint64(last))]
print(f"{len(here)} of {len(stores)} stores go to {qtrace.hex(first)} to {qtrace.hex(last)}")
by_place = here.groupby("address").agg(stores=("data", "size"), lowest=("data", "min"), highest=("data", "max"))
for place in by_place.sort_values("stores", ascending=False, kind="stable").head(10).itertuples():
    word = here.loc[here["address"] == np.uint64(place.Index), "word"]
    print(f"  at {qtrace.hex(place.Index, 16)} ({qtrace.hex(int(word.iloc[0]), 8)}): {place.stores:>7} stores, "
          f"{qtrace.hex(place.lowest)} to {qtrace.hex(place.highest)}, first by record {word.index[0]}")  # fmt: skip
