"""The shell for scripts: files, what differs from them, exit status, completion in bash, saving."""

import os
import signal
import time
import unittest
from pathlib import Path

from lab import Edge, Lab, two_sites

from .terminal import Terminal

ROOT = Path(__file__).resolve().parent.parent.parent


class Scripts(unittest.TestCase):
    """One edge; each test leaves the configuration as it was."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10, 20), group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edge.start()
        cls.edge.wait_overlay()
        cls.usual = cls.edge.config()

    def setUp(self):
        self.file = self.lab.path / f"{self._testMethodName}.conf"
        self.file.write_text(self.usual)
        self.addCleanup(self.back)

    def back(self):
        self.file.write_text(self.usual)
        self.edge.corvsh(f"configure file {self.file}")

    def corvsh(self, *argv, stdin=None):
        """Exit status, output and error output."""
        done = self.edge.ns.run(self.edge.programs / "corvsh", "--root", self.edge.root, *argv, check=False, stdin=stdin)
        return done.returncode, done.stdout, done.stderr

    def running(self):
        return self.edge.corvsh("show running-config")

    # ---- configure file

    def test_check_says_what_would_change_and_changes_nothing(self):
        before = self.running()
        self.file.write_text(self.usual.replace("vpn-name blue", "vpn-name red").replace("  lum vlan 20\n", "")
                             + "lum vpn-site-vlan 5\ninterface Overlay3\n  lum vpn-name x\n")
        status, out, _ = self.corvsh("-c", f"configure file {self.file} --check")
        self.assertEqual(status, 0)
        self.assertEqual(sorted(out.splitlines()), sorted([
            "- interface eth2: lum vlan 20", "- interface Overlay1: lum vpn-name blue",
            "+ interface Overlay1: lum vpn-name red", "+ interface Overlay3", "+ interface Overlay3: lum vpn-name x",
            "+ lum vpn-site-vlan 5"]))
        self.assertEqual(self.running(), before)

    def test_only_what_differs_is_entered_and_then_nothing_differs(self):
        self.edge.corvsh("debug lum event")
        self.addCleanup(self.edge.corvsh, "no debug lum event")
        iods = self.edge.corvsh("show interface | include Overlay1")
        lines = len(self.edge.output().splitlines())
        self.file.write_text(self.usual + "lum vpn-site-vlan 5\n")
        self.edge.corvsh(f"configure file {self.file}")
        self.assertIn("lum vpn-site-vlan 5", self.running())
        self.assertEqual(self.edge.overlay()["Site-vlan"], "5")
        logged = "\n".join(self.edge.output().splitlines()[lines:])
        self.assertNotIn("Overlay1", logged)                     # the overlay was not touched
        self.assertEqual(self.edge.corvsh("show interface | include Overlay1"), iods)
        self.assertEqual(self.corvsh("-c", f"configure file {self.file} --check"), (0, "nothing differs\n", ""))

    def test_what_is_shown_as_running_can_be_entered_as_a_file(self):
        self.file.write_text(self.running())
        self.assertEqual(self.corvsh("-c", f"configure file {self.file} --check"), (0, "nothing differs\n", ""))

    def test_a_file_with_mistakes_changes_nothing_and_each_mistake_is_placed(self):
        before = self.running()
        count = len(self.usual.splitlines())
        self.file.write_text(self.usual + "lum vpn-site-vlan abc\n  lum foo\ninterface eth1\n  lum vlna 3\n")
        status, out, _ = self.corvsh("-c", f"configure file {self.file}")
        self.assertEqual(status, 1)
        self.assertEqual(out.splitlines(), [
            f"{self.file}:{count + 1}: column 19: expected a VLAN id, 0 to 4095 in 'lum vpn-site-vlan abc'",
            f"{self.file}:{count + 2}: 'lum foo' is indented and no interface line is above it",
            f"{self.file}:{count + 4}: column 7: unknown word \"vlna\"; expected vlan in 'lum vlna 3'",
            "nothing was changed: the file has mistakes"])
        self.assertEqual(self.running(), before)

    def test_a_line_that_is_rejected_is_told_and_the_others_are_entered(self):
        self.file.write_text(self.usual.replace(str(self.top.group), "10.1.1.1") + "lum vpn-site-vlan 6\n")
        status, out, _ = self.corvsh("-c", f"configure file {self.file}")
        self.assertEqual((status, out), (1, "interface Overlay1: lum vpn-mgroup-addr 10.1.1.1: Illegal group address\n"))
        self.assertIn("lum vpn-site-vlan 6", self.running())
        self.assertIn(f"lum vpn-mgroup-addr {self.top.group}", self.running())

    def test_a_file_that_cannot_be_read_is_told(self):
        self.assertEqual(self.corvsh("-c", "configure file /nowhere/x")[:2],
                         (1, "/nowhere/x: No such file or directory\n"))
        self.assertEqual(self.corvsh("-c", "configure file /etc")[:2], (1, "/etc: not a file\n"))

    def test_who_applied_a_file_is_logged_and_a_check_is_not(self):
        self.corvsh("-c", f"configure file {self.file} --check")
        self.corvsh("-c", f"configure file {self.file}")
        self.edge.wait_log(f"): configure file {self.file}\n")
        self.assertNotIn("--check", self.edge.output())

    # ---- -c, -f, a pipe

    def test_commands_run_in_one_session_and_modes_are_kept(self):
        status, out, err = self.corvsh("-c", "configure terminal", "-c", "interface Overlay1", "-c", "lum vpn-name red",
                                       "-c", "end", "-c", "show lum overlay summary | include red")
        self.assertEqual((status, err), (0, ""))
        self.assertRegex(out, r"^Overlay1 +red +\d+ ")

    def test_the_exit_status_is_1_when_one_was_rejected_and_the_rest_still_runs(self):
        status, out, err = self.corvsh("-c", "show lum nothing", "-c", "show services | count")
        self.assertEqual(status, 1)
        self.assertRegex(out, r"^\d+\n$")
        self.assertEqual(err.splitlines()[:2], ["show lum nothing", "         ^^^^^^^"])
        self.assertIn('unknown word "nothing"; expected adjacency, ', err)

    def test_the_exit_status_is_2_for_a_wrong_command_line(self):
        status, out, err = self.corvsh("--nonsense")
        self.assertEqual((status, out), (2, ""))
        self.assertIn("usage: corvsh", err)

    def test_the_exit_status_is_1_when_nobody_answers(self):
        done = self.edge.ns.run(self.edge.programs / "corvsh", "--root", "/nowhere", "-c", "exit", check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("corvaned does not answer at /nowhere/", done.stderr)

    def test_a_question_mark_alone_at_the_end_lists_what_may_come_next(self):
        formats = "  gre  GRE with an Ethernet payload\n  udp  UDP, destination port 8472\n"
        self.assertEqual(self.corvsh("-c", "configure terminal", "-c", "interface Overlay1",
                                     "-c", "lum vpn-encap-format ?"), (0, formats, ""))
        status, out, err = self.corvsh("-c", "show nonsense ?")
        self.assertEqual((status, out, err.splitlines()[0]), (1, "", "show nonsense ?"))
        self.assertIn('unknown word "nonsense"', err)
        status, out, err = self.corvsh("-c", 'show lum site name "what ?')
        self.assertIn("the closing '\"' is missing", err)

    def test_a_name_with_a_question_mark_can_be_pasted_as_it_is_shown(self):
        self.edge.configure("interface Overlay1", "lum vpn-name why?")
        self.assertIn('  lum vpn-name "why?"\n', self.running())
        self.file.write_text(self.running())
        self.assertEqual(self.corvsh("-c", f"configure file {self.file} --check"), (0, "nothing differs\n", ""))

    def test_a_file_of_commands_names_the_line_that_was_wrong(self):
        self.file.write_text("configure terminal\n! a comment\n\ninterface Overlay1\n  lum vpn-name red\n"
                             "  lum vpn-mgroup-addr 10.1.1.1\nend\nshow lum overlay summary | include red\n")
        status, out, err = self.corvsh("-f", str(self.file))
        self.assertEqual(status, 1)
        self.assertRegex(out, r"^Overlay1 +red ")
        self.assertIn(f"{self.file}:6:   lum vpn-mgroup-addr 10.1.1.1\nIllegal group address\n", err)

    def test_a_pipe_is_read_like_a_file(self):
        status, out, err = self.corvsh(stdin="show services | count\nshow foo\n")
        self.assertEqual(status, 1)
        self.assertRegex(out, r"^\d+\n$")
        self.assertIn("-:2: show foo\n", err)

    def test_a_command_of_another_mode_says_where_it_belongs(self):
        for commands, told in (
                (["lum vpn-name x"], "; this is a command of the mode of an overlay interface"),
                (["lum vpn-site-vlan 5"], "; this is a command of configure mode"),
                (["configure terminal", "interface eth1", "lum vpn-name x"],
                 "; this is a command of the mode of an overlay interface"),
                (["configure terminal", "switchport"], "; this is a command of the mode of a device")):
            self.assertIn(told, self.edge.corvsh(*commands, check=False))

    # ---- completion in bash

    def test_tab_in_bash_completes_a_command_word_by_word(self):
        bash = self.bash()
        self.keys(bash, f"corvsh --root {self.edge.root} -c 'sh\tlum ov\tOv\tsum\t", "-c 'show lum overlay Overlay1 summary'")
        bash.type("\n", at_once=True)
        bash.wait(lambda s: "LUM Overlay Information" in s.text, "the command's output")

    def test_tab_in_bash_lists_words_and_live_names_of_the_mode(self):
        bash = self.bash()
        self.keys(bash, f"corvsh --root {self.edge.root} -c 'conf t' -c 'interface \t\t", "interface")
        bash.wait(lambda s: {"eth0", "eth1", "Overlay1"} <= set(s.text.split()), "the interfaces")
        self.keys(bash, "eth1' -c 'lum vlan 2\t", "-c 'lum vlan 20 ")

    def test_tab_in_bash_makes_no_interface(self):
        bash = self.bash()
        self.keys(bash, f"corvsh --root {self.edge.root} -c 'conf t' -c 'interface Overlay9' -c 'lum \t\t", "lum ")
        bash.settle(0.5)
        self.assertNotIn("Overlay9", self.running())

    def bash(self):
        rc = self.lab.path / f"{self._testMethodName}.rc"
        rc.write_text("PS1='$ '\n. /usr/share/bash-completion/bash_completion\n"
                      f". {ROOT}/packaging/corvsh.bash-completion\nPATH={self.edge.programs}:$PATH\n"
                      "bind 'set bell-style none'\nbind 'set enable-bracketed-paste off'\n")
        bash = Terminal(["bash", "--noprofile", "--rcfile", rc, "-i"], columns=250)
        self.addCleanup(bash.close)
        bash.wait(lambda s: s.last == "$", "the prompt of bash")
        return bash

    def keys(self, bash, typed, expect):
        for part in typed.replace("\t", "\t\0").split("\0"):     # each completion is done before the next key
            bash.type(part)
            bash.settle(0.25)
        bash.wait(lambda s: expect in "".join(s.lines[s.row - 2:]).replace("\n", ""), f"{expect!r} after {typed!r}")


class Saving(unittest.TestCase):
    """`write`, and startup files that are damaged. The edge is started by each test."""

    def setUp(self):
        self.lab = self.enterContext(Lab())
        self.top = two_sites(self.lab, vlans=(10, 20), group_routes=False)
        self.edge = Edge(self.top, 1)

    def test_a_damaged_startup_file_is_reported_with_its_lines_and_the_rest_works(self):
        good = self.edge.config()
        lines = good.splitlines()
        damaged = [lines[0], "\x00\x01\xff garbage \"", *lines[1:], "interface", "lum route 10/zz interface eth1",
                   "x" * 10000]
        self.edge.start()
        self.edge.stop()
        self.edge.config_file.write_bytes("\n".join(damaged).encode("latin-1") + b"\nlum vpn-site-vlan 7\n\xff\xfe")
        self.edge.start_with(["--config", self.edge.config_file])
        self.edge.wait_overlay()
        errors = self.edge.corvsh("show configuration-errors").splitlines()
        numbers = [int(line.split(":")[1]) for line in errors]
        count = len(lines)
        self.assertEqual(numbers, [2, count + 2, count + 3, count + 4, count + 6])
        self.assertIn("control character", errors[0])
        self.assertIn("line is too long", errors[3])
        self.assertIn("lum vpn-site-vlan 7", self.edge.corvsh("show running-config"))
        log = self.edge.output()
        for error in errors:
            self.assertIn(error.split("'")[0], log)

    def test_write_leaves_the_old_file_whole_or_the_new_one_whenever_it_is_interrupted(self):
        """corvaned is killed at moments that move through the write: each time the file is one of the two."""
        many = "".join(f"lum route 10/02:00:00:01:{i // 256:02x}:{i % 256:02x} interface eth1\n" for i in range(2000))
        self.edge.start(self.edge.config() + many)
        self.edge.wait_overlay()
        for number in range(8):
            self.edge.corvsh("configure terminal", f"lum vpn-site-vlan {number + 1}")
            shell = self.edge.ns.spawn(self.edge.programs / "corvsh", "--root", self.edge.root, "-c", "write")
            time.sleep(0.001 + 0.0005 * number)
            os.kill(self.edge.process.pid, signal.SIGKILL)
            shell.wait(10)
            self.edge.process.wait(10)
            text = self.edge.config_file.read_text()
            self.assertEqual(text.count("lum route"), 2000 + len([h for h in self.top.hosts.values() if h.site == 2]))
            self.assertTrue(text.endswith("\n"))
            self.edge.start_with(["--config", self.edge.config_file])
            self.assertEqual(self.edge.corvsh("show configuration-errors"), "")
            self.assertIn(f"lum vpn-site-vlan {number + 1}\n", self.edge.corvsh("show running-config"))

    def test_write_that_fails_says_why_and_leaves_the_old_file(self):
        self.edge.start()
        before = self.edge.config_file.read_text()
        (self.edge.dir / "startup.cfg.new").mkdir()
        out = self.edge.corvsh("configure terminal", "lum vpn-site-vlan 9", "end", "write", check=False)
        self.assertIn(f"cannot write {self.edge.config_file}: Is a directory", out)
        self.assertEqual(self.edge.config_file.read_text(), before)


if __name__ == "__main__":
    unittest.main()
