"""A plain TLB model, written from docs/analysis.md alone, so that the C++ model has somebody to agree with. Lists
instead of linked slots, every size of the curve by looking at a list, no short cuts.

    figures = tlb_plain.replay(items, **options)

`items` are the objects that `qtrace dump --json` prints. Where items are missing, the next one may have a member
`context`, the partition and the process in force before it. The result has the members of `qtrace tlb --json`.
"""

PAGE_BITS = {0: 12, 1: 16, 2: 21, 3: 30, 4: 24}
KINDS = ["host", "guest-real", "nested", "hash"]
REGION = 21


def number(text):
    return int(text, 16) if isinstance(text, str) else text


def members(item, name):
    """The translation of one address, without the prefix of its members."""
    get = lambda member, default=0: item.get(f"{name}_{member}", default)
    return {
        "vsid": number(get("vsid", "0x0")),
        "rpn": number(get("rpn", "0x0")),
        "page": get("page_size"),
        "guest_page": get("gpage_size"),
        "guest_depth": get("hRTW_depth"),
        "walks": [[number(a) for a in walk] for walk in get("hRTW", [])],
        "addresses": [number(a) for a in get("hRTW_host_RA", [])],
        "guest": [number(a) for a in get("gRTW", [])],
    }


class Lru:
    """The most recently used first."""

    def __init__(self, entries):
        self.entries, self.held = entries, []

    def use(self, key):
        hit = key in self.held
        if hit:
            self.held.remove(key)
        self.held = ([key] + self.held)[: self.entries]
        return hit


class Level:
    def __init__(self, entries, ways):
        self.sets = [[] for _ in range(entries // ways)]
        self.ways, self.most = ways, 0

    def set_of(self, page):
        return self.sets[(page["first"] >> page["bits"]) % len(self.sets)]

    def touch(self, page):
        held = self.set_of(page)
        if page not in held:
            return False
        held.remove(page)
        held.insert(0, page)
        return True

    def insert(self, page):
        held = self.set_of(page)
        held.insert(0, page)
        del held[self.ways :]
        self.most = max(self.most, self.reach())

    def drop(self, page):
        held = self.set_of(page)
        if page in held:
            held.remove(page)

    def reach(self):
        return sum(1 << page["bits"] for held in self.sets for page in held)


class Tlb:
    def __init__(self, levels, split):
        fetch = [Level(*level) for level in levels]
        data = [Level(*levels[0])] + fetch[1:] if split else fetch
        self.sides = {"fetches": fetch, "data": data}

    def all(self):
        return {id(level): level for side in self.sides.values() for level in side}.values()

    def look_up(self, side, page):
        """The level that holds the page; afterwards all up to it do."""
        levels = self.sides[side]
        hit = next((i for i, level in enumerate(levels) if level.touch(page)), len(levels))
        for level in levels[:hit]:
            level.insert(page)
        return hit


def cost():
    return {"accesses": 0, "walks": 0, "entries_read": 0}


class Model:
    def __init__(self, levels, split, walk_cache, nested_cache, page_bits, flush, interval):
        self.sizes, self.split, self.page_bits = levels, split, page_bits
        self.caches = walk_cache, nested_cache
        self.flushing, self.interval = flush, interval
        self.levels = [{"lookups": 0, "misses": 0} for _ in levels]
        self.tlb, self.large = Tlb(levels, split), Tlb(levels, split)
        self.walk_cache, self.nested_cache = Lru(walk_cache), Lru(nested_cache)
        self.stacks = {side: [] for side in (("fetch", "data") if split else ("all",))}
        self.distances = {side: [] for side in self.stacks}
        self.real = {}
        self.tables = {name: {} for name in ("partition", "process", "page-size", "instruction", "page")}
        self.regions, self.region_pages = {}, {}
        self.kinds = {
            kind: {"walks": 0, "entries": 0, "entries_read": 0, "guest_read": [0] * 4, "host_read": [0] * 4}
            for kind in KINDS
        }
        self.sides = {
            side: {"translated": 0, "untranslated": 0, "not_known": 0, "walks": 0} for side in ("fetches", "data")
        }
        self.counts = dict.fromkeys(
            ("suspect", "remapped", "walk_cache_hits", "nested_cache_hits", "entries_read"), 0
        )
        self.switches, self.partition_switches, self.since = 0, 0, None
        self.first_thousand = {"instructions": 0, **cost()}
        self.series = []
        self.instructions = 0
        self.partition = None

    # ---- Instructions

    def instruction(self, address):
        if self.interval and self.instructions % self.interval == 0:
            self.series.append({"instructions": 0, **cost()})
        self.address = address
        self.instructions += 1
        self.charged = [self.series[-1]] if self.interval else []
        if self.since is not None and self.since < 1000:
            self.since += 1
            self.charged.append(self.first_thousand)
        for row in self.charged:
            row["instructions"] += 1

    def switch_to(self, lpid, pid):
        if self.partition == (lpid, pid):
            return
        if self.partition is not None:
            self.switches += 1
            self.partition_switches += self.partition[0] != lpid
            self.since = 0
            if self.flushing:
                self.flush()
        self.partition = lpid, pid
        self.tables["partition"].setdefault(lpid, cost())
        self.tables["process"].setdefault((lpid, pid), cost())

    def flush(self):
        for level in [*self.tlb.all(), *self.large.all()]:
            level.sets = [[] for _ in level.sets]
        self.stacks = {side: [] for side in self.stacks}
        self.walk_cache, self.nested_cache = (Lru(size) for size in self.caches)

    # ---- Accesses

    def access(self, side, address, translation):
        page = translation["page"]
        if self.page_bits is not None:
            page = {**page, "bits": self.page_bits, "first": address >> self.page_bits << self.page_bits}
        self.remap(page, translation["real"])
        self.sides[side]["translated"] += 1
        self.measure(side, page)
        hit = self.tlb.look_up(side, page)
        for level in self.levels[: hit + 1]:
            level["lookups"] += 1
        for level in self.levels[:hit]:
            level["misses"] += 1
        missed = hit == len(self.sizes)
        before = self.counts["entries_read"]
        if missed:
            self.sides[side]["walks"] += 1
            self.walk(translation)
        if self.page_bits is None:
            self.advise(side, page, missed)
        self.charge(page, missed, self.counts["entries_read"] - before)

    def remap(self, page, real):
        key = tuple(page.items())
        if self.page_bits is None and self.real.get(key, real) != real:
            self.counts["remapped"] += 1
            for level in self.tlb.all():
                level.drop(page)
            for stack in self.stacks.values():
                if key in stack:
                    stack.remove(key)
        self.real[key] = real

    def measure(self, side, page):
        key = tuple(page.items())
        name = {"fetches": "fetch", "data": "data"}[side] if self.split else "all"
        stack = self.stacks[name]
        self.distances[name].append(stack.index(key) if key in stack else None)
        if key in stack:
            stack.remove(key)
        stack.insert(0, key)

    def advise(self, side, page, missed):
        small = page["bits"] < REGION
        large = {**page, "bits": REGION, "first": page["first"] >> REGION << REGION} if small else page
        hit = self.large.look_up(side, large)
        if small:
            region = self.regions.setdefault(tuple(large.items()), {"walks": 0, "walks_if_one": 0, "pages": set()})
            region["pages"].add(tuple(page.items()))
            region["walks"] += missed
            region["walks_if_one"] += hit == len(self.sizes)

    def charge(self, page, missed, read):
        rows = [
            self.tables["page-size"].setdefault(page["bits"], cost()),
            self.tables["page"].setdefault(tuple(page.items()), cost()),
            *self.charged,
        ]
        if self.partition is not None:
            rows += [self.tables["partition"][self.partition[0]], self.tables["process"][self.partition]]
        if missed:
            rows.append(self.tables["instruction"].setdefault(self.address, cost()))
        for row in rows:
            row["accesses"] += 1
            row["walks"] += missed
            row["entries_read"] += read

    # ---- Walks

    def walk(self, translation):
        page, steps = translation["page"], translation["steps"]
        kind = self.kinds[page["kind"]]
        kind["walks"] += 1
        kind["entries"] += sum(3 - step["host"][:3].count(0) + 1 for step in steps) + max(0, len(steps) - 1)
        for i, step in enumerate(steps):
            last = i == len(steps) - 1
            inside = page["kind"] != "host"
            if inside and self.nested_cache.use((page["lpid"], step["guest_real"] >> 12)):
                self.counts["nested_cache_hits"] += 1
            else:
                for level, address in enumerate(step["host"]):
                    if level == 3 or address != 0:
                        self.read(kind, "host", level, address, last and level == 3)
            if not last:
                leaf = i == len(steps) - 2
                self.read(kind, "guest", 3 if leaf else i, step["guest_entry"], leaf)

    def read(self, kind, stage, level, address, last):
        if not last and self.walk_cache.use(address):
            self.counts["walk_cache_hits"] += 1
            return
        kind[stage + "_read"][level] += 1
        kind["entries_read"] += 1
        self.counts["entries_read"] += 1


class Feed:
    """The accesses of a trace."""

    def __init__(self, model):
        self.model = model
        self.lpid = self.pid = 0
        self.told, self.fresh, self.moved = "nothing", False, False
        self.named = self.current = self.space = None
        self.known = {}  # page -> (order, translation)
        self.records = self.headers = 0  # before the next item, when nothing is lost
        self.order = 0

    def run(self, items):
        for item in items:
            header = "header" in item
            if self.record_lost(item, header) or (header and self.headers not in (item["header"], None)):
                self.told, self.fresh, self.current = "nothing", False, None
                self.headers = None  # a record does not tell how many headers were lost
                if "context" in item:
                    self.enter(*item["context"])
            self.records = item["before_record"] if header else item["record"] + 1
            if header:
                self.headers = item["header"] + 1
            self.header(item) if header else self.record(item)

    def record_lost(self, item, header):
        return self.records != (item["before_record"] if header else item["record"])

    def space_of(self, kind, in_guest, first, vsid):
        lpid = self.lpid if in_guest else 0
        if kind == "hash":
            return vsid, lpid
        return (0 if kind == "guest-real" or first >> 62 == 3 else self.pid), lpid

    def read(self, item, name, present, modes, address):
        """What a record tells of the translation: "nothing", "untranslated", or a translation."""
        guest, host = modes
        if host == 2 and guest in (2, 3):
            return "untranslated"
        kinds = {(0, 0): "nested", (3, 0): "host", (1, 1): "hash", (2, 1): "hash", (3, 1): "hash"}
        if not present or modes not in kinds:
            return "nothing"
        of = members(item, name)
        kind = kinds[modes]
        if kind == "host" and of["guest_depth"] > 0:
            kind = "guest-real"
        bits = PAGE_BITS.get(of["page"], 12)
        if modes in ((0, 0), (1, 1)):
            bits = min(bits, PAGE_BITS.get(of["guest_page"], 12))
        in_guest = kind == "guest-real" or guest != 3
        page = {"first": address >> bits << bits, "bits": bits, "kind": kind, "vsid": of["vsid"]}
        return {"page": page, "in_guest": in_guest, "real": of["rpn"] << 12 >> bits, "steps": self.steps(kind, of)}

    @staticmethod
    def steps(kind, of):
        if kind == "hash":
            return []
        count = min(max(of["guest_depth"], 1), 5) if kind == "nested" else 1
        walks = of["walks"] + [[0] * 4] * 5
        guest = of["guest"] or [0] * 6
        addresses = of["addresses"] or [0] * 4
        steps = []
        for i in range(count):
            final, leaf = i == count - 1, i == count - 2
            guest_real = guest[5] if final else guest[4] if leaf else guest[i]
            steps.append(
                {"host": walks[i], "guest_real": guest_real, "guest_entry": None if final else addresses[i]}
            )
        return steps

    def placed(self, translation):
        page = dict(translation["page"])
        space, lpid = self.space_of(page["kind"], translation["in_guest"], page["first"], page.pop("vsid"))
        page |= {"space": space, "lpid": lpid}
        return {**translation, "page": page}

    def name(self, item, name, present, modes, address):
        self.named = self.read(item, name, present, modes, address)
        self.fresh = isinstance(self.named, dict)
        self.told = "page" if self.fresh else self.named

    def enter(self, lpid, pid):
        self.lpid, self.pid = lpid, pid
        self.moved = True
        self.model.switch_to(lpid, pid)

    def header(self, item):
        self.enter(number(item.get("lpid", "0x0")), number(item.get("pid", 0)))
        if "iar_is_present" in item:
            modes = item.get("guest_xlate_mode_instruction", 0), item.get("host_xlate_mode_instruction", 0)
            self.name(item, "iar", "iar_rpn_is_present" in item, modes, number(item.get("iar", "0x0")))

    def record(self, item):
        self.model.instruction(number(item["address"]))
        self.fetch(number(item["address"]))
        if "data_address_present" in item:
            self.data(item)
        if "next_instruction_EA_present" in item:
            modes = item.get("guest_xlate_mode_instruction", 0), item.get("host_xlate_mode_instruction", 0)
            present = "next_instruction_RPN_present" in item
            self.name(item, "next_instruction", present, modes, number(item.get("next_instruction_ea", "0x0")))

    def fetch(self, address):
        counts = self.model.sides["fetches"]
        if self.told != "page":
            counts["untranslated" if self.told == "untranslated" else "not_known"] += 1
            return
        if self.fresh:
            self.order += 1
            self.current = self.placed(self.named)
            self.space = self.named
            self.known[tuple(sorted(self.current["page"].items()))] = self.order, self.current
        elif self.moved or self.current is None or not self.covers(self.current["page"], address):
            self.current = self.last_named(address)
        self.fresh = self.moved = False
        if self.current is None:
            counts["not_known"] += 1
        else:
            self.model.access("fetches", address, self.current)

    @staticmethod
    def covers(page, address):
        return address >> page["bits"] << page["bits"] == page["first"]

    def last_named(self, address):
        found = []
        for bits in set(PAGE_BITS.values()):
            guess = {**self.space["page"], "bits": bits, "first": address >> bits << bits}
            page = self.placed({**self.space, "page": guess})["page"]
            found.append(self.known.get(tuple(sorted(page.items())), (0, None)))
        return max(found, key=lambda entry: entry[0])[1]

    def data(self, item):
        if "trace_error_code_present" in item:
            self.model.counts["suspect"] += 1
            return
        modes = item.get("guest_xlate_mode_data", 0), item.get("host_xlate_mode_data", 0)
        address = number(item.get("data_ea", "0x0"))
        read = self.read(item, "data", "data_RPN_present" in item, modes, address)
        if isinstance(read, dict):
            self.model.access("data", address, self.placed(read))
        else:
            self.model.sides["data"]["untranslated" if read == "untranslated" else "not_known"] += 1


# ---- Figures -------------------------------------------------------------------------------------------


def per_thousand(count, instructions):
    return 1000.0 * count / instructions if instructions else 0.0


def size_name(size):
    units = ["K", "M", "G", "T", "P", "E"]
    value = size / 1024
    while value >= 1024 and len(units) > 1:
        value, units = value / 1024, units[1:]
    return f"{value:.4g}{units[0]}"


def page_key(page):
    key = {
        "address": hex(page["first"]),
        "size": size_name(1 << page["bits"]),
        "kind": page["kind"],
        "lpid": hex(page["lpid"]),
    }
    return key | ({"vsid": hex(page["space"])} if page["kind"] == "hash" else {"pid": page["space"]})


def interval(row):
    return {**row, "walks_per_thousand": per_thousand(row["walks"], row["instructions"])}


def curve(side, distances):
    first = distances.count(None)
    misses = lambda size: first + sum(d is not None and d >= size for d in distances)
    sizes = [1]
    power = 2
    while misses(sizes[-1]) > first:
        sizes.append(power)
        if misses(power) > first:
            sizes.append(power + power // 2)
        power *= 2
    rows = [{"entries": size, "misses": misses(size)} for size in sizes]
    return {"side": side, "accesses": len(distances), "first_uses": first, "sizes": rows}


def rows_of(model, table):
    keys = {
        "partition": lambda lpid: {"lpid": hex(lpid)},
        "process": lambda process: {"lpid": hex(process[0]), "pid": process[1]},
        "page-size": lambda bits: {"size": size_name(1 << bits)},
        "instruction": lambda address: {"address": hex(address)},
        "page": lambda page: page_key(dict(page)),
    }
    return [{**keys[table](key), **row} for key, row in model.tables[table].items()]


def advice(model, walks):
    rows = []
    for page, region in model.regions.items():
        saved = region["walks"] - region["walks_if_one"]
        if len(region["pages"]) > 1 and saved > 0:
            rows.append(
                {
                    **page_key(dict(page)),
                    "entries": len(region["pages"]),
                    "walks": region["walks"],
                    "walks_if_one": region["walks_if_one"],
                    "saved_share": saved / walks,
                }
            )
    return rows


def levels_of(model):
    levels = []
    for i, (entries, ways) in enumerate(model.sizes):
        mine = {id(side[i]): side[i] for side in model.tlb.sides.values()}.values()
        levels.append(
            {
                "entries": entries,
                "ways": ways,
                **model.levels[i],
                "misses_per_thousand": per_thousand(model.levels[i]["misses"], model.instructions),
                "reach": sum(level.reach() for level in mine),
                "most_reach": sum(level.most for level in mine),
            }
        )
    return levels


def figures_of(model):
    walks = sum(kind["walks"] for kind in model.kinds.values())
    accesses = sum(side["translated"] for side in model.sides.values())
    after = model.first_thousand
    rest = {
        "instructions": model.instructions - after["instructions"],
        "accesses": accesses - after["accesses"],
        "walks": walks - after["walks"],
        "entries_read": model.counts["entries_read"] - after["entries_read"],
    }
    figures = {
        "instructions": model.instructions,
        **model.sides,
        **model.counts,
        "levels": levels_of(model),
        "walks": walks,
        "walks_per_thousand": per_thousand(walks, model.instructions),
        "nested_share": model.kinds["nested"]["walks"] / walks if walks else 0.0,
        "entries": sum(kind["entries"] for kind in model.kinds.values()),
        "kinds": model.kinds,
        "switches": {
            "count": model.switches,
            "of_partition": model.partition_switches,
            "first_thousand": interval(after),
            "rest": interval(rest),
        },
        "curves": [curve(side, distances) for side, distances in model.distances.items()],
        "per": {table: rows_of(model, table) for table in model.tables},
        "advice": advice(model, walks),
    }
    if model.interval:
        figures["series"] = [interval(row) for row in model.series]
    return figures


def replay(items, **options):
    model = Model(**options)
    Feed(model).run(items)
    return figures_of(model)
