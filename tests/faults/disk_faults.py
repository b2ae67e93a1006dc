"""Fails each single open, write and close of a session's files, in each way that a disk fails."""

import errno
import os

import faults

CALLS = {
    "open": [errno.ENOSPC, errno.EIO, errno.EINTR],
    "write": [errno.ENOSPC, errno.EIO, errno.EINTR, "short"],  # a flush is a write that fflush makes
    "close": [errno.ENOSPC, errno.EIO, errno.EINTR],
}
TEXT_OF = {error: os.strerror(error) for error in (errno.ENOSPC, errno.EIO, errno.EINTR)}


class Case:
    def __init__(self, call, how, number, for_ever):
        self.call, self.how, self.number, self.for_ever = call, how, number, for_ever
        self.result = self.files = self.hit = None

    def __str__(self):
        how = TEXT_OF.get(self.how, self.how)
        return f"{self.call} {self.number} of {self.hit} {how}{' for ever' if self.for_ever else ''}: {self.result.says()}"

    def is_without_effect(self):
        """What well-made programs make up for."""
        return self.how == "short" or (self.how == errno.EINTR and (self.call == "close" or not self.for_ever))


def run_case(folder, call, how, number, for_ever):
    case = Case(call, how, number, for_ever)
    log = folder.path / "log"
    folder.clear()
    case.result = folder.run("fail_disk.so", {
        "FAIL_BELOW": str(folder.out), "FAIL_CALL": call, "FAIL_AT": str(number), "FAIL_HOW": str(how),
        "FAIL_FOR_EVER": "1" if for_ever else "", "FAIL_LOG": str(log)})
    case.files = folder.files()
    if case.result.code >= 0:
        seen, case.hit = log.read_text().split("\n")[:2]
        case.seen = int(seen)
        case.hit = case.hit.split("/")[-1]
    return case


def all_cases(folder):
    for call, ways in CALLS.items():
        count = run_case(folder, call, 0, 0, False).seen
        for how in ways:
            for for_ever in (False, True):
                for number in range(1, count + 1):
                    yield run_case(folder, call, how, number, for_ever)


class Session_Cases:
    """Every case of one session. A class with setUpClass that fills `place`."""

    @classmethod
    def run_cases(cls, what):
        cls.reference = run_case(cls.place, "write", 0, 0, False)
        cls.reference_records = {name: faults.records_of(cls.place.out / name) for name in cls.reference.files
                                 if name.startswith("trace")}
        cls.cases = []
        for case in all_cases(cls.place):
            for name in case.files.keys() & cls.reference.files.keys():
                if case.files[name] == cls.reference.files[name]:
                    case.files[name] = cls.reference.files[name]  # one copy of all that are alike
            case.records = {name: faults.records_of(cls.place.out / name) for name, content in case.files.items()
                            if name.startswith("trace") and content is not cls.reference.files[name]}
            cls.cases.append(case)
        counts = {call: sum(case.call == call for case in cls.cases) for call in CALLS}
        faults.report(f"disk, {what}: {len(cls.cases)} cases: " + ", ".join(f"{n} {call}" for call, n in counts.items()))

    @classmethod
    def tearDownClass(cls):
        cls.place.remove()

    def test_every_open_write_and_close_is_failed(self):
        counts = {call: sum(case.call == call for case in self.cases) for call in CALLS}
        for call, least in self.LEAST_CASES.items():
            self.assertGreaterEqual(counts[call], least, call)

    def test_every_case_hits_a_file_of_the_session(self):
        for case in self.cases:
            self.assertIn(case.hit, {*self.reference.files, "out"}, case)  # the folder is searched for older files

    def of(self, family, *calls):
        return [case for case in self.cases if case.hit and case.hit.startswith(family) and case.call in calls]

    def test_host_never_dies(self):
        for case in self.cases:
            self.expect_survival(case.result, case)

    def test_interrupted_calls_and_short_writes_change_no_binary_trace(self):
        for case in self.of("trace", "open", "write", "close"):
            if case.is_without_effect():
                self.assertEqual(case.result.code, 0, case)
                self.assertEqual(case.files, self.reference.files, str(case))

    def test_trace_that_cannot_be_created_is_named_twice(self):
        for case in self.of("trace", "open"):
            if not case.is_without_effect():
                self.assertEqual(case.result.code, 1, case)
                self.assertIn(f"Can not open QTRACE file to write {self.place.out}/{case.hit}", case.result.err)
                self.assertIn("QTRACE: Error in opening qtrace files!", case.result.err)

    def test_trace_that_cannot_be_written_or_closed_is_named_with_the_reason(self):
        for case in self.of("trace", "write", "close"):
            if not case.is_without_effect():
                self.assertEqual(case.result.code, 1, case)
                self.assertRegex(case.result.err, f"replay: .*/trace[0-9]: {case.call}: {TEXT_OF[case.how]}", case)

    def test_records_that_reached_the_disk_are_read(self):
        for case in self.cases:
            for name, records in case.records.items():
                self.assertTrue(faults.is_subsequence(records, self.reference_records[name]), case)

    def test_files_that_no_failure_hit_are_complete(self):
        for case in self.cases:
            if case.for_ever or "Can not open QTRACE file" in case.result.err:
                continue
            for name, content in case.files.items():
                if name != case.hit:
                    self.assertEqual(content, self.reference.files[name], f"{name}: {case}")


class Small_Session(Session_Cases, faults.Fault_Test):
    """Two threads with text and page-table-entry files, a pause and a resume: one block in a trace."""

    LEAST_CASES = {"open": 36, "write": 216, "close": 36}  # six files, three or four ways, once and for ever

    @classmethod
    def setUpClass(cls):
        cls.place = faults.Folder(faults.small_stream())
        cls.place.write_script(faults.FULL_SESSION)
        cls.run_cases("small session")

    def test_text_and_entry_files_fail_silently_and_alone(self):
        for case in self.of(("text", "pte"), "open", "write", "close"):
            if case.for_ever and case.call != "open":
                continue  # the binary traces are next
            self.assertEqual(case.result.code, 0, case)

    def test_text_trace_never_holds_a_part_of_a_line(self):
        for case in self.cases:
            if case.how == "short":
                continue
            for name in ("text0", "text1"):
                lines = case.files.get(name, b"").splitlines(keepends=True)
                self.assertTrue(faults.is_subsequence(lines, self.reference.files[name].splitlines(keepends=True)), case)

    def test_short_writes_leave_every_text_trace_complete(self):
        for case in self.cases:
            if case.how == "short":
                self.assertEqual(case.files, self.reference.files, str(case))

    def test_one_failing_write_costs_one_line(self):
        for case in self.of("text", "write"):
            if not case.for_ever and case.how != "short":
                lost = self.reference.files[case.hit].count(b"(seq:") - case.files[case.hit].count(b"(seq:")
                self.assertLessEqual(lost, 1, case)


class Many_Blocks(Session_Cases, faults.Fault_Test):
    """Binary traces of several blocks each."""

    LEAST_CASES = {"open": 12, "write": 80, "close": 12}

    @classmethod
    def setUpClass(cls):
        cls.place = faults.Folder(faults.small_stream(12000 if faults.LONG else 4000, registers=12))
        cls.place.write_script(["start {out}/trace", "run", "stop"])
        cls.run_cases("several blocks")

    def test_traces_have_several_blocks(self):
        self.assertGreater(self.reference.files["trace0"].count(b"\x8bQB\n"), 2)

    def test_one_failing_write_costs_at_most_what_was_refused(self):
        for case in self.of("trace", "write"):
            if case.for_ever or case.is_without_effect() or case.hit not in case.records:
                continue
            total = len(self.reference_records[case.hit])
            last_block_or_start = case.number in (1, 2) or case.number > case.seen - 2
            lost = total - len(case.records[case.hit])
            self.assertTrue(lost <= 1 or last_block_or_start, f"{lost} of {total} lost: {case}")


if __name__ == "__main__":
    faults.main()
