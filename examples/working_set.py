"""How many pages a program touches over time: distinct pages of each interval of instructions.

    working_set.py TRACE [INTERVALS]
"""
import sys

import numpy as np
import qtrace

name, intervals = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 10

# %% An interval is a batch: so the whole trace need not fit into memory.
records = qtrace.open(name).records
rows = max(1, -(-records // intervals))
seen = np.empty(0, np.uint64)
print("     from record  code pages  data pages  new data pages")
for f in qtrace.batches(name, rows=rows, columns=["address", "data", "has_data"]):
    code = qtrace.page(f["address"]).unique()
    data = qtrace.page(f.loc[f["has_data"], "data"]).unique()
    new = np.setdiff1d(data, seen)
    seen = np.union1d(seen, data)
    print(f"{f.index[0]:>16} {len(code):>11} {len(data):>11} {len(new):>15}")
print(f"{len(seen)} data pages of 4 KiB in all, {len(seen) * 4} KiB")
