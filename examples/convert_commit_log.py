"""Converts a plain text commit log into a commit stream.

    convert_commit_log.py LOG STREAM

A line of the log is an instruction of one hardware thread with translation off: number, address, instruction word, text,
and optional facts after semicolons.

    1 1000 e8640008 ld r3,8(r4) ; read 2008 ; r4=2000 ; r3:2a
    2 1004 4800000c b 0x1010 ; taken

`read` and `write` name the effective address, `=` a register that was read, `:` one that was written."""
import re
import sys

from qtrace import commit_stream

REAL_MODE = 11  # translation off: the real address is the effective one
ACCESSES = {"read": "load", "write": "store"}


def parse(line):
    """What Writer.commit() takes, but for the next address."""
    head, *facts = [part.strip() for part in line.split(";")]
    number, address, word, text = head.split(maxsplit=3)
    commit = {"seq": int(number), "pc": int(address, 16), "op": int(word, 16), "text": text, "flags": [],
              "inputs": {"gpr": []}, "outputs": {"gpr": []}}
    commit["fetch"] = {"mode": REAL_MODE, "ra": commit["pc"]}
    for fact in facts:
        kind, *operand = fact.split()
        register = re.fullmatch(r"r(\d+)([=:])([0-9a-f]+)", fact)
        if kind in ACCESSES:
            ea = int(operand[0], 16)
            commit["flags"].append(ACCESSES[kind])
            commit["data"] = {"ea": ea, "mode": REAL_MODE, "ra": ea}
        elif kind == "taken":
            commit["flags"] += ["branch", "unconditional", "taken"]
        elif register:
            side = commit["inputs" if register[2] == "=" else "outputs"]
            side["gpr"].append((int(register[1]), int(register[3], 16)))
        else:
            raise ValueError(f"what is this: {fact}")
    return commit


def main(log, stream):
    with open(log) as lines:
        commits = [parse(line) for line in lines if line.strip()]
    with commit_stream.Writer(stream, processors=1, threads=1, memory=1 << 28, source=log) as out:
        out.context(0, bit64=True, kernel=True)
        for commit, following in zip(commits, commits[1:] + [{"pc": commits[-1]["pc"] + 4}]):
            out.commit(0, npc=following["pc"], **commit)


if __name__ == "__main__":
    main(*sys.argv[1:])
