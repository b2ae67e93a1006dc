"""Fails each single allocation of a session, in the plugin, the trace library, the host and the libraries under them."""

import collections
import re

import faults

# Every allocation of the plugin until the session is open, in its order, and what its failure leads to. "dies": success
# is assumed, the process ends by a signal; these are the per-thread tables. "assertion": the same, found by the plugin
# itself. A function's name: the error message that it reports, and the session goes on. "silent": the session goes on
# without what the memory was for.
PLUGIN_START = [
    ("paused", "assertion"),
    ("commit_action", "assertion"),
    ("qfile_in_bin", "dies"),
    ("qfile_in_text", "dies"),
    ("stream of text0, which is not written", "silent"),
    ("stream of text1, which is not written", "silent"),
    ("qfile_in_pte", "dies"),
    ("stream of pte0, which is not written", "silent"),
    ("stream of pte1, which is not written", "silent"),
    ("hdr_write", "dies"),
    ("root", "dies"),
    ("last_commit", "dies"),
    ("plain_commit", "dies"),
    ("flush_seq, which nothing uses", "silent"),
    ("flush", "dies"),
    ("flush_list", "dies"),
    ("list of thread 0", "new_list"),
    ("its entries", "new_list"),
    ("list of thread 1", "new_list"),
    ("its entries", "new_list"),
    ("pre_execution", "dies"),
    ("crack_inst, used in cycle mode only", "silent"),
    ("first stack", "new_stack"),
    ("its entries", "new_stack"),
    ("second stack", "new_stack"),
    ("its entries", "new_stack"),
]
# From then on: nodes; the comment of a file header, which is written without one; the buffer of a PTE file, which is
# then written word by word; the lists of two resumed threads.
PLUGIN_LATER = {"new_node", "new_list", "silent"}
LISTS_AT_RESUME = 4


class Case:
    def __init__(self, number, module, result, records):
        self.number, self.module, self.result, self.records = number, module, result, records

    def __str__(self):
        return f"allocation {self.number} in {self.module}: {self.result.says()}"

    def outcome(self):
        message = re.search(r"(new_\w+)\(\): Out of memory in allocating", self.result.err)
        if self.result.code < 0:
            return "assertion" if "Assertion `" in self.result.err else "dies"
        if message:
            return message[1]
        return "silent" if self.result.code == 0 else "reported"


class Every_Allocation(faults.Fault_Test):
    """One run of the session for every allocation."""

    @classmethod
    def setUpClass(cls):
        cls.place = faults.Folder(faults.small_stream())
        cls.place.write_script(faults.FULL_SESSION)
        cls.log = cls.place.path / "log"
        cls.reference = cls.run_with(0)
        cls.cases = [cls.run_with(number) for number in range(1, int(cls.log.read_text()) + 1)]

    @classmethod
    def tearDownClass(cls):
        ways = collections.Counter(case.outcome() for case in cls.cases)
        faults.report(f"memory: {len(cls.cases)} allocations: " + ", ".join(f"{n} {way}" for way, n in ways.items()))
        modules = collections.Counter(case.module for case in cls.cases)
        faults.report("memory: " + ", ".join(f"{n} in {module}" for module, n in modules.items()))
        cls.place.remove()

    @classmethod
    def run_with(cls, number):
        cls.place.clear()
        result = cls.place.run("fail_memory.so", {"FAIL_MEMORY_AT": str(number), "FAIL_MEMORY_LOG": str(cls.log)})
        module = cls.log.read_text().split()[0] if number else ""
        return Case(number, module, result, [faults.records_of(cls.place.out / f"trace{tid}") for tid in (0, 1)])

    def of(self, *modules):
        return [case for case in self.cases if case.module.startswith(modules)]

    def test_session_without_failures_succeeds(self):
        self.assertEqual(self.reference.result.code, 0, self.reference)
        self.assertEqual([len(records) for records in self.reference.records], [9, 8])

    def test_plugin_reports_or_dies_exactly_where_it_is_listed(self):
        outcomes = [case.outcome() for case in self.of("plugin_qtbin.so")]
        listed = [outcome for _, outcome in PLUGIN_START]
        self.assertEqual(outcomes[: len(listed)], listed)

    def test_plugin_dies_of_no_allocation_in_an_open_session(self):
        later = [case.outcome() for case in self.of("plugin_qtbin.so")][len(PLUGIN_START) :]
        self.assertLessEqual(set(later), PLUGIN_LATER)
        self.assertIn("new_node", later)
        self.assertEqual(later.count("new_list"), LISTS_AT_RESUME)

    def test_trace_library_reports_the_file_or_goes_on_uncompressed(self):
        for case in self.of("libqtrace", "libzstd"):
            if case.outcome() == "silent":
                self.assertEqual(case.records, self.reference.records, case)
            else:
                self.assertRegex(case.result.err, r"replay: (.*trace\d: \w+: )?out of memory", case)
                self.assertEqual(case.result.code, 1, case)

    def test_host_reports_and_ends_in_order_once_it_runs(self):
        cases = self.of("replay")
        running = next(at for at, case in enumerate(cases) if case.result.code >= 0)
        # before main, in static objects of the library that reads the command line, nobody is there to report
        self.assertTrue(all("std::bad_alloc" in case.result.err for case in cases[:running]))
        self.assertLess(running, 20)
        for case in cases[running:]:
            self.expect_survival(case.result, case)
            if case.result.code == 1:
                self.assertRegex(case.result.err, "out of memory|cannot be read|[Cc]annot (load|allocate)", case)

    def test_stream_parsing_library_dies_only_while_it_chooses_its_instructions(self):
        deaths = [case for case in self.of("libsimdjson") if case.result.code < 0]
        self.assertLess(len(deaths), 10)
        for case in deaths:
            self.assertIn("terminate called", case.result.err, case)
            self.assertEqual(case.result.out, "", case)  # before the first command

    def test_success_means_a_complete_trace(self):
        for case in self.cases:
            if case.result.code == 0:
                self.assertEqual(case.records, self.reference.records, case)

    def test_failure_is_never_without_a_message(self):
        for case in self.cases:
            if case.result.code == 1:
                self.assertRegex(case.result.err, "[Oo]ut of memory|cannot", case)


if __name__ == "__main__":
    faults.main()
