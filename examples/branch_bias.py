"""How the branches of a trace go: which are taken always, never or now and then.

    branch_bias.py TRACE [BRANCHES]
"""
import sys

import qtrace

name, branches = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 5

# %% The branches among the records. Those of the last record before a pause or the end count as not taken.
f = qtrace.frame(name, columns=["address", "branch", "taken", "call", "return"])
f = f[f["branch"]]
print(f"{len(f)} branches: {f['call'].sum()} calls, {f['return'].sum()} returns, {f['taken'].mean():.1%} taken")

# %% By address: executions and times taken.
by_address = f.groupby("address")["taken"].agg(["size", "sum"]).rename(columns={"size": "executed", "sum": "taken"})
by_address["bias"] = by_address["taken"] / by_address["executed"]
often = by_address[by_address["executed"] >= 10]
print(f"{len(by_address)} places, {len(often)} of them executed ten times or more:")
print(f"  always taken {(often['bias'] == 1).sum()}, never {(often['bias'] == 0).sum()}, "
      f"between {((often['bias'] > 0) & (often['bias'] < 1)).sum()}")  # fmt: skip

# %% The hardest to predict: nearest to one half, most executed first.
mixed = often[(often["bias"] > 0.2) & (often["bias"] < 0.8)].sort_values("executed", ascending=False, kind="stable")
print("most executed between 20 % and 80 %:")
for branch in mixed.head(branches).itertuples():
    print(f"  {qtrace.hex(branch.Index, digits=16)} executed {branch.executed:>8}, taken {branch.bias:.1%}")
