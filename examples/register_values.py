"""The values of a register over time: what it is set to, how often it changes, its largest steps.

    register_values.py TRACE [CLASS NUMBER]      without, the stack pointer: gpr 1
"""
import sys

import qtrace

name = sys.argv[1]
kind, number = (sys.argv[2], int(sys.argv[3])) if len(sys.argv) > 3 else ("gpr", 1)

# %% What is written to the register.
r = qtrace.registers(name, classes=[f"{kind}_out"])
r = r[r["number"] == number].reset_index(drop=True)
print(f"{kind} {number} is written {len(r)} times, with {r['value'].nunique()} different values")
if not len(r):
    sys.exit()

# %% Steps from value to value: signed, and exact.
r["step"] = 0
r.loc[1:, "step"] = qtrace.distance(r["value"].to_numpy()[1:], r["value"].to_numpy()[:-1])
print(f"lowest {qtrace.hex(r['value'].min())}, highest {qtrace.hex(r['value'].max())}")
print("the most frequent steps:")
for step, times in r.loc[1:, "step"].value_counts().head(5).items():
    print(f"  {step:>+22} {times:>8} times")

# %% The course of it, as ten places of equal distance.
print("over time:")
for row in r.iloc[:: max(1, len(r) // 10)].head(10).itertuples():
    print(f"  record {row.record:>10}  {qtrace.hex(row.value, digits=16)}")
