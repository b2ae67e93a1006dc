#!/usr/bin/python3
"""tlb_agreement_test.py QTRACE RANDOM_ACCESSES REPLAY PLUGIN STREAM...: `qtrace tlb` and the plain model agree on
every figure, for random configurations on random traces, on recorded ones, and on one with a damaged block."""
import itertools
import json
import os
import random
import subprocess
import sys
import tempfile

import tlb_plain

RECORDS = 1500  # of each trace; the plain model is slow


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    if done.returncode not in (0, 3):
        sys.exit(f"{' '.join(map(str, command))} failed with {done.returncode}")
    return done.stdout


def trace_recorded(replay, plugin, stream, folder):
    base = os.path.join(folder, os.path.basename(stream).split(".")[0])
    commands = base + ".commands"
    name = os.path.basename(plugin)
    with open(commands, "w", encoding="utf-8") as file:
        file.write(f'plugin load "{plugin}"\nplugin signal {name} start "{base}"\n')
        file.write(f"run {RECORDS * 3}\nplugin signal {name} stop\n")
    run(replay, stream, commands)
    return base + "0"


def random_configuration(dice):
    levels = []
    for _ in range(dice.choice([1, 1, 2, 3])):
        ways = dice.choice([1, 2, 3, 4, 8])
        levels.append((ways * dice.choice([1, 2, 4, 5, 16]), ways))
    size = dice.choice(["as-traced", "as-traced", "as-traced", "4K", "64K", "2M", "1G"])
    return {
        "levels": levels,
        "split": dice.random() < 0.4,
        "walk_cache": dice.choice([0, 1, 4, 16]),
        "nested_cache": dice.choice([0, 1, 4, 16]),
        "page_bits": {"as-traced": None, "4K": 12, "64K": 16, "2M": 21, "1G": 30}[size],
        "flush": dice.random() < 0.3,
        "interval": dice.choice([0, 0, 100, 333]),
    }, size


def arguments_of(configuration, size):
    arguments = ["--entries", ",".join(f"{entries}x{ways}" for entries, ways in configuration["levels"])]
    arguments += ["--walk-cache", str(configuration["walk_cache"])]
    arguments += ["--nested-cache", str(configuration["nested_cache"]), "--page-sizes", size]
    arguments += ["--interval", str(configuration["interval"])] if configuration["interval"] else []
    arguments += ["--split"] if configuration["split"] else []
    arguments += ["--flush-on-switch"] if configuration["flush"] else []
    return arguments + ["--top", "1000000", "--per", "partition,process,page-size,instruction,page"]


def sorted_rows(figures):
    """The order of rows with equal cost is left open."""
    for table in [*figures["per"].values(), figures["advice"]]:
        table.sort(key=lambda row: json.dumps(row, sort_keys=True))
    return figures


def differences(one, other, path=""):
    if isinstance(one, dict) and isinstance(other, dict):
        for key in one.keys() | other.keys():
            yield from differences(one.get(key), other.get(key), f"{path}.{key}")
    elif isinstance(one, list) and isinstance(other, list) and len(one) == len(other):
        for i, (a, b) in enumerate(zip(one, other)):
            yield from differences(a, b, f"{path}[{i}]")
    elif one != other:
        yield f"{path}: {one} in C++, {other} in Python"


def compare(qtrace, trace, items, dice):
    configuration, size = random_configuration(dice)
    arguments = arguments_of(configuration, size)
    theirs = json.loads(run(qtrace, "tlb", "--json", *arguments, trace))
    theirs.pop("file")
    ours = tlb_plain.replay(items, **configuration)
    found = list(differences(sorted_rows(theirs), sorted_rows(ours)))
    if found:
        print(f"{os.path.basename(trace)} {' '.join(arguments)}: {len(found)} differences")
        print("\n".join(found[:10]))
    return not found


def curve_agrees(qtrace, trace, dice):
    """Each size of the curve, run as a configuration of its own."""
    curve = json.loads(run(qtrace, "tlb", "--json", trace))["curves"][0]["sizes"]
    agree = True
    for point in dice.sample(curve, min(4, len(curve))):
        single = json.loads(run(qtrace, "tlb", "--json", "--entries", str(point["entries"]), trace))
        if single["walks"] != point["misses"]:
            print(f"{os.path.basename(trace)}: {point['entries']} entries: {single['walks']}, curve {point['misses']}")
            agree = False
    return agree


def damaged(trace, folder):
    """The same file with a byte of its middle changed."""
    with open(trace, "rb") as file:
        content = bytearray(file.read())
    content[len(content) // 2] ^= 0x55
    name = os.path.join(folder, "damaged")
    with open(name, "wb") as file:
        file.write(content)
    return name


def items_of(qtrace, trace, limit):
    lines = run(qtrace, "dump", "--json", trace).splitlines()
    items = (json.loads(line) for line in lines)
    return list(itertools.islice((item for item in items if "header" in item or "record" in item), limit))


def with_context(items, whole):
    """The items of the damaged file; the one after the loss tells partition and process, which the whole file knows."""
    read = {(kind, item[kind]) for item in items for kind in ("header", "record") if kind in item}
    partition, after_loss = (0, 0), {}
    for item in whole:
        kind = "header" if "header" in item else "record"
        if kind == "header":
            partition = (tlb_plain.number(item.get("lpid", "0x0")), item.get("pid", 0))
        if (kind, item[kind]) not in read:
            after_loss = None
        elif after_loss is None:
            after_loss = {(kind, item[kind]): partition}
    return [
        {**item, "context": after_loss[key]} if (key := (kind, item[kind])) in after_loss else item
        for item in items
        for kind in ["header" if "header" in item else "record"]
    ]


def main():
    qtrace, generator, replay, plugin, *streams = sys.argv[1:]
    dice = random.Random(20)
    agree, compared = True, 0
    with tempfile.TemporaryDirectory() as folder:
        traces = [trace_recorded(replay, plugin, stream, folder) for stream in streams]
        for seed in range(8):
            traces.append(os.path.join(folder, f"random{seed}"))
            run(generator, traces[-1], str(seed), str(RECORDS))
        long = os.path.join(folder, "long")
        run(generator, long, "99", "60000")
        lossy = damaged(long, folder)
        for trace in [*traces, lossy]:
            items = items_of(qtrace, trace, None)
            if trace == lossy:
                whole = items_of(qtrace, long, None)
                if len(items) >= len(whole):
                    sys.exit("the damaged file lost nothing")
                items = with_context(items, whole)
            for _ in range(1 if trace == lossy else 3):
                agree = compare(qtrace, trace, items, dice) and agree
                compared += 1
            agree = curve_agrees(qtrace, trace, dice) and agree
    print(f"{compared} configurations compared")
    sys.exit(0 if agree else 1)


main()
