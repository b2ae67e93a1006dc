"""Two traces of the same program compared: what each executes and touches that the other does not.

    compare_traces.py TRACE OTHER
"""
import sys

import numpy as np
import qtrace

name, other = sys.argv[1:3]

# %% The same columns of both.
one, two = (qtrace.frame(each, columns=["address", "data", "has_data", "load", "store", "taken"]) for each in (name, other))
print(f"{'':<24}{name.split('/')[-1]:>16}{other.split('/')[-1]:>16}")
print(f"{'records':<24}{len(one):>16}{len(two):>16}")
for kind in ("load", "store", "taken"):
    print(f"{kind:<24}{one[kind].mean():>16.1%}{two[kind].mean():>16.1%}")

# %% Where they were: sets of uint64, never joined by pandas, which would make floats of them.
for what, of in (("instructions", lambda f: f["address"]), ("data pages", lambda f: qtrace.page(f.loc[f["has_data"], "data"]))):
    mine, yours = of(one).unique(), of(two).unique()
    common = np.intersect1d(mine, yours)
    print(f"{'distinct ' + what:<24}{len(mine):>16}{len(yours):>16}")
    print(f"{'  only here':<24}{len(mine) - len(common):>16}{len(yours) - len(common):>16}")

# %% Where they part: the first record whose address differs.
both = min(len(one), len(two))
differs = one["address"].to_numpy()[:both] != two["address"].to_numpy()[:both]
if differs.any():
    at = int(differs.argmax())
    print(f"first different address: record {at}, {qtrace.hex(one['address'].iloc[at])} and {qtrace.hex(two['address'].iloc[at])}")
else:
    print(f"the first {both} addresses are the same")
