"""Sessions in places where files cannot be created or written, and with names that ask for trouble."""

import os
import resource
import subprocess

import faults

ODD_NAMES = ["100%", "%s%n%x", "%100000d", "two words", "größe", "名前", "☃ %s", "a'b", "-rf", "tab\there", "\\n"]
RESTS = ("", " txt {out}/text pte {out}/pte")


class Places(faults.Fault_Test):
    """Each test ends with the host alive and a message that names the file."""

    def session(self, out=None, commands=None, **options):
        folder = self.folder(faults.small_stream())
        folder.write_script(commands or faults.FULL_SESSION, out)
        result = folder.run(**options)
        self.expect_survival(result, "")
        return folder, result

    def expect_refused(self, out):
        """No trace can be created below `out`."""
        _, result = self.session(out)
        self.assertEqual(result.code, 1)
        self.assertIn(f"Can not open QTRACE file to write {out}/trace0", result.err)
        self.assertIn("QTRACE: Error in opening qtrace files!", result.err)

    # ---- places ---------------------------------------------------------------------------------------------

    def test_missing_folder_is_reported(self):
        self.expect_refused("/nowhere/to/be/found")

    def test_path_below_a_file_is_reported(self):
        folder = self.folder("")
        self.expect_refused(str(folder.stream))

    def test_folder_without_write_permission_is_reported(self):
        if os.geteuid() == 0:
            self.expect_refused("/proc/self")  # not even root can create files there
            return
        folder = self.folder()
        folder.out.chmod(0o555)
        self.expect_refused(str(folder.out))

    def test_folder_in_the_place_of_the_file_is_reported(self):
        folder = self.folder()
        (folder.out / "trace0").mkdir()
        self.expect_refused(str(folder.out))

    def test_only_the_text_traces_place_is_missing(self):
        folder, result = self.session(commands=["start {out}/trace txt /nowhere/text pte /nowhere/pte", "run", "stop"])
        self.assertEqual(result.code, 0)
        self.assertEqual(sorted(folder.files()), ["trace0", "trace1"])
        self.assertEqual(len(faults.records_of(folder.out / "trace0")), 10)

    def test_name_too_long_for_a_folder_entry_is_reported(self):
        base = "n" * 260
        _, result = self.session(commands=[f"start {base}", "run", "stop"])
        self.assertRegex(result.err, f"File name '{base}' is too long")
        self.assertIn("QTRACE: Error in opening qtrace files!", result.err)

    def test_every_length_of_name_is_used_or_reported(self):
        folder = self.folder(faults.small_stream())
        start = f"{folder.out}/"
        for length in [*range(len(start) + 1, len(start) + 5), *range(225, 300), 4096, 70000]:
            folder.clear()
            name = start + "n" * (length - len(start))
            folder.write_script([f"start {faults.as_word(name)} txt {faults.as_word(name)}t", "run", "stop"])
            result = folder.run()
            self.expect_survival(result, length)
            if result.code == 0:
                self.assertIn(os.path.basename(name) + "0", folder.files(), length)
            else:
                self.assertRegex(result.err, "too long|Can not open QTRACE file", length)

    # ---- full disks -----------------------------------------------------------------------------------------

    def test_device_that_is_always_full(self):
        folder = self.folder(faults.small_stream())
        for name in ("trace0", "trace1", "text0", "text1", "pte0", "pte1"):
            (folder.out / name).symlink_to("/dev/full")
        folder.write_script(faults.FULL_SESSION)
        result = folder.run()
        self.assertEqual(result.code, 1)
        self.assertIn("Can not open QTRACE file to write", result.err)
        self.assertIn("No space left on device", result.err)

    def test_text_traces_on_a_full_device_leave_the_binary_traces_whole(self):
        folder = self.folder(faults.small_stream())
        for name in ("text0", "text1", "pte0", "pte1"):
            (folder.out / name).symlink_to("/dev/full")
        folder.write_script(faults.FULL_SESSION)
        self.assertEqual(folder.run().code, 0)
        self.assertEqual(faults.tool("info", folder.out / "trace0", folder.out / "trace1").code, 0)

    def expect_readable_rest(self, folder, result):
        """The traces were cut by a limit: reported, and what is there can be read."""
        self.assertEqual(result.code, 1, result.says())
        self.assertRegex(result.err, "replay: .*trace[01]: write: (No space left on device|File too large)")
        self.assertIn("QTRACE_WriteRecord fail", result.err)
        for name in ("trace0", "trace1"):
            self.assertEqual(faults.tool("info", folder.out / name).code, 3)
            self.assertGreater(len(faults.records_of(folder.out / name)), 100)

    def test_disk_that_fills_up_keeps_what_was_sealed(self):
        folder = self.folder(faults.small_stream(8000, registers=12))
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=300k", "tmpfs", str(folder.out)],
                                 stderr=subprocess.DEVNULL)
        if mounted.returncode != 0:
            self.skipTest("no mounting here; the size limit is tested instead")
        self.addCleanup(subprocess.run, ["umount", str(folder.out)])
        folder.write_script(["start {out}/trace", "run", "stop"])
        self.expect_readable_rest(folder, folder.run())

    def test_file_size_limit_keeps_what_was_sealed(self):
        folder = self.folder(faults.small_stream(8000, registers=12))
        folder.write_script(["start {out}/trace", "run", "stop"])
        self.expect_readable_rest(folder, folder.run(limits={resource.RLIMIT_FSIZE: 150_000}))

    def test_full_disk_under_the_hosts_own_output_is_a_failure(self):
        with open("/dev/full", "wb") as full:
            folder, result = self.session(stdout=full)
            self.assertEqual(result.code, 1)
            self.assertIn("standard output cannot be written", result.err)
            self.assertEqual(faults.tool("info", folder.out / "trace0").code, 0)
            _, result = self.session(commands=["start /nowhere/x", "stop"], stdout=full, stderr=full)
            self.assertEqual(result.code, 1)

    # ---- descriptors ----------------------------------------------------------------------------------------

    def test_every_number_of_open_files(self):
        folder = self.folder(faults.small_stream())
        folder.write_script(faults.FULL_SESSION)
        codes = []
        for most in range(4, 24):
            folder.clear()
            result = folder.run(limits={resource.RLIMIT_NOFILE: most})
            if "error while loading shared libraries" in result.err:
                continue
            self.expect_survival(result, most)
            codes.append(result.code)
            if result.code == 1:
                self.assertRegex(result.err, "Too many open files|Can not open QTRACE file|cannot be read|cannot load", most)
            else:
                self.assertEqual(len(faults.records_of(folder.out / "trace0")), 9)
        self.assertIn(1, codes)
        self.assertEqual(codes[-1], 0)

    # ---- names ----------------------------------------------------------------------------------------------

    def test_odd_names_reach_files_and_messages_unchanged(self):
        for name in ODD_NAMES:
            folder = self.folder(faults.small_stream())
            base = str(folder.out) + "/" + name
            folder.write_script([f"start {faults.as_word(base)} txt {faults.as_word(base + '.t')} pte {faults.as_word(base + '.p')}", "run", "stop"])
            result = folder.run()
            self.assertEqual(result.code, 0, result.says())
            self.assertEqual(set(folder.files()), {f"{name}{kind}{tid}" for kind in ("", ".t", ".p") for tid in (0, 1)})
            self.assertIn(f"into file {base}* and text trace {base}.t* with PTE accesses in {base}.p*\n", result.out)

    def test_odd_names_that_fail_are_printed_unchanged(self):
        for name in ODD_NAMES:
            base = "/nowhere/" + name
            _, result = self.session(commands=[f"start {faults.as_word(base)}"])
            self.assertIn(f"Can not open QTRACE file to write {base}0\n", result.err)
            self.assertIn(f"replay: {base}0: open: No such file or directory", result.err)

    def test_odd_words_in_commands_are_printed_unchanged(self):
        for name in ODD_NAMES:
            word = faults.as_word(name)
            _, result = self.session(commands=[f"start {{out}}/t {word}", f"pause cpu {word}", f"resume cpu 0 thread {word}",
                                               f"warm {faults.as_word('/nowhere/' + name)}", word])
            self.assertIn(f"QTRACE: Unknown argument '{name}'", result.err)
            self.assertIn(f"QTRACE: Invalid cpu id '{name}' for pause", result.err)
            self.assertIn(f"QTRACE: Invalid thread id '{name}' for resume (cpu 0)", result.err)
            self.assertIn(f"/nowhere/{name}: No such file or directory", result.err)
            self.assertIn("QTRACE: Arguments error!", result.err)


if __name__ == "__main__":
    faults.main()
