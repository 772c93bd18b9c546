"""The shell on a real terminal: keys go in, and what a person would see is looked at."""

import os
import re
import signal
import time
import unittest

from lab import Edge, Lab, two_sites, wait_until

from .terminal import Terminal

UP, CTRL_C, CTRL_D, CTRL_U, CTRL_R = "\x1b[A", "\x03", "\x04", "\x15", "\x12"


class ShellTerminal(unittest.TestCase):
    """One edge, and a shell in a terminal of 80 columns for each test."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10, 20), group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edge.start()
        cls.edge.wait_overlay()

    def setUp(self):
        self.home = self.lab.path / self._testMethodName
        self.home.mkdir()
        self.open()

    def open(self, rows=24):
        self.terminal = Terminal(["ip", "netns", "exec", self.edge.ns.name, self.edge.programs / "corvsh", "--root",
                                  self.edge.root], rows=rows, env={"HOME": str(self.home)})
        self.addCleanup(self.terminal.close)
        self.terminal.wait(lambda s: s.last.endswith("#"), "the prompt")
        self.prompt = self.terminal.screen.last

    def type(self, keys, prompt=None):
        """The lines between what was typed and the prompt that follows."""
        screen = self.terminal.screen
        before = screen.row
        self.terminal.type(keys)
        wanted = prompt or self.prompt
        self.terminal.wait(lambda s: s.row > before and s.last.startswith(wanted), f"a prompt after {keys!r}")
        self.terminal.settle(0.15)
        self.assertLessEqual(max(len(line) for line in screen.lines), 80)
        return [line.rstrip() for line in screen.lines[before:screen.row]][1:]

    def press(self, keys, expect):
        """Keys that leave the cursor in the line: it then ends with what is expected."""
        self.terminal.type(keys)
        self.terminal.wait(lambda s: s.last.endswith(expect), f"{expect!r} after {keys!r}")

    def choices(self, keys):
        """What is listed below the line, word by word, and the line after it."""
        rows = self.type(keys)
        return {row.split()[0]: " ".join(row.split()[1:]) for row in rows if row.startswith("  ")}

    # ---- completion and help

    def test_tab_completes_words_as_far_as_they_are_certain(self):
        self.press("sh\t", f"{self.prompt} show")
        self.press("lu\tov\tsu\t", f"{self.prompt} show lum overlay summary")

    def test_tab_knows_the_interfaces_of_the_machine(self):
        self.edge.ns.ip("link add live0 type veth peer name live1")
        self.addCleanup(self.edge.ns.ip, "link del live0")
        wait_until(lambda: "live0" in self.edge.corvsh("show interface"), 5, "the device is known")
        self.type("conf t\r", self.prompt.rstrip("#") + "(config)#")
        self.prompt = self.prompt.rstrip("#") + "(config)#"
        self.assertLessEqual({"eth0", "eth1", "live0", "live1", "Overlay1"}, set(self.choices("interface \t")))
        self.press("live0\t", "interface live0")

    def test_tab_knows_the_vlans_that_are_configured(self):
        self.type("conf t\r", self.prompt.rstrip("#") + "(config)#")
        self.prompt = self.prompt.rstrip("#") + "(config-if)#"
        self.type("interface eth1\r")
        self.assertLessEqual({"10", "20", "<vlan-id>"}, set(self.choices("lum vlan \t")))
        self.press("2\t", "lum vlan 20")

    def test_a_question_mark_lists_what_may_come_next_at_every_level(self):
        top = self.choices("?")
        self.assertLessEqual({"show", "configure", "debug", "test", "write", "exit", "no"}, set(top))
        show = self.choices("show ?")
        self.assertLessEqual({"lum", "interface", "drops", "running-config", "services"}, set(show))
        self.assertEqual(show["drops"], "What was dropped, by reason")
        lum = self.choices("lum ?")
        self.assertLessEqual({"overlay", "adjacency", "vlan", "site", "arp-nd-cache", "internal", "version"}, set(lum))
        overlay = self.choices("overlay ?")
        self.assertLessEqual({"Overlay1", "name", "summary", "<if-name>", "<cr>"}, set(overlay))
        self.assertEqual(set(self.choices("summary ?")), {"<cr>"})
        self.assertLessEqual({"include", "exclude", "count", "json"}, set(self.choices("| ?")))

    def test_a_question_mark_in_a_word_lists_what_the_word_may_become(self):
        self.assertEqual(set(self.choices("show s?")), {"services"})

    def test_a_question_mark_where_nothing_fits_says_what_is_wrong(self):
        rows = self.type("show nonsense ?")
        self.assertIn('unknown word "nonsense"', " ".join(rows))

    def test_a_question_mark_inside_quotes_is_a_character(self):
        self.press('show lum site name "what?', 'name "what?')

    # ---- lines

    def test_the_line_before_comes_back_with_the_arrow_even_in_the_next_session(self):
        self.type("show services\r")
        self.press(UP, f"{self.prompt} show services")
        self.terminal.type(CTRL_U + "exit\r")
        self.assertEqual(self.terminal.ended(), 0)
        self.assertEqual((self.home / ".corvsh_history").stat().st_mode & 0o777, 0o600)
        self.open()
        self.press(UP + UP, f"{self.prompt} show services")

    def test_ctrl_r_finds_a_line_by_a_part_of_it(self):
        self.type("show services\r")
        self.type("show drops\r")
        self.terminal.type(CTRL_R + "serv")
        self.terminal.wait(lambda s: "show services" in s.last, "the line that was found")

    def test_words_may_be_cut_short_as_long_as_one_command_is_meant(self):
        self.assertEqual(self.type("sh lu ov su\r")[0], "LUM Overlay Information")
        rows = self.type("sh lum inter\r")
        self.assertEqual(rows[0].strip(), "^^^^^")
        self.assertIn('"inter" is ambiguous: interface or internal', rows[1])

    def test_a_mistake_is_marked_below_its_word_and_told_without_breaking_words(self):
        rows = self.type("show runing-config\r")
        self.assertEqual(rows[0].rstrip(), " " * (len(self.prompt) + len(" show ")) + "^" * len("runing-config"))
        told = " ".join(rows[1:])
        self.assertIn('unknown word "runing-config"; expected configuration-errors, drops, interface, logging, lum, '
                      "running-config or services", told)

    def test_modes_change_the_prompt_and_end_leaves_them_all(self):
        bare = self.prompt.rstrip("#")
        self.type("configure terminal\r", bare + "(config)#")
        self.type("interface eth1\r", bare + "(config-if)#")
        self.type("interface Overlay1\r", bare + "(config-if)#")
        self.type("exit\r", bare + "(config)#")
        self.type("interface eth2\r", bare + "(config-if)#")
        self.type("end\r", bare + "#")

    def test_ctrl_c_gives_the_line_up(self):
        self.press("configure file nothing", "nothing")
        self.type(CTRL_C)
        self.assertEqual(self.terminal.screen.last, self.prompt)

    def test_ctrl_d_leaves_the_shell_with_status_0(self):
        self.terminal.type(CTRL_D)
        self.assertEqual(self.terminal.ended(), 0)

    def test_exit_leaves_the_shell_with_status_0(self):
        self.terminal.type("exit\r")
        self.assertEqual(self.terminal.ended(), 0)

    # ---- output

    def many_routes(self, count=200):
        lines = [f"lum anycast-arp 10.9.{i // 250}.{i % 250 + 1}" for i in range(8)]
        lines += [f"lum route 10/02:00:00:01:{i // 256:02x}:{i % 256:02x} interface eth1" for i in range(count)]
        self.edge.configure(*lines)
        self.addCleanup(self.edge.configure, *(f"no {line}" for line in lines))

    def test_long_output_stops_at_a_full_screen_and_goes_on_by_page_line_and_end(self):
        self.many_routes()
        screen = self.terminal.screen
        more = lambda s: s.last.startswith("--More--")
        self.terminal.type("show running-config\r")
        self.terminal.wait(more, "the pager")
        first = screen.row
        self.assertEqual(screen.row - screen.top, 23)            # the screen is full, its first line still there
        self.assertEqual(screen.lines[screen.top], self.edge.corvsh("show running-config").splitlines()[0])
        self.terminal.type(" ")
        self.terminal.wait(lambda s: more(s) and s.row == first + 23, "the second page")
        self.terminal.type("\r")
        self.terminal.wait(lambda s: more(s) and s.row == first + 24, "one line more")
        self.terminal.type("q")
        self.terminal.wait(lambda s: s.last == self.prompt, "the prompt")
        self.assertNotIn("--More--", screen.text)
        self.assertLess(screen.row, first + 30)

    def test_every_line_of_long_output_is_shown_once(self):
        self.many_routes()
        self.terminal.type("show running-config\r")
        for page in range(1, 100):
            full = lambda s: s.row >= 23 * page and s.last.startswith("--More--")
            done = lambda s: s.row > 0 and s.last == self.prompt
            if done(self.terminal.wait(lambda s: full(s) or done(s), f"the end of page {page}")):
                break
            self.terminal.type(" ")
        shown = self.terminal.screen.text.splitlines()[1:-1]
        self.assertEqual(shown, self.edge.corvsh("show running-config").splitlines())

    def test_ctrl_c_ends_the_rest_of_an_output(self):
        self.many_routes()
        self.terminal.type("show running-config\r")
        self.terminal.wait(lambda s: s.last.startswith("--More--"), "the pager")
        self.terminal.type(CTRL_C)
        self.terminal.wait(lambda s: s.last == self.prompt, "the prompt")

    def test_ctrl_c_ends_the_wait_for_an_output_that_does_not_come(self):
        pid = self.edge.lum_pid()
        os.kill(pid, signal.SIGSTOP)
        try:
            began = time.monotonic()
            self.terminal.type("show lum overlay\r")
            time.sleep(0.5)
            self.terminal.type(CTRL_C, at_once=True)
            self.terminal.wait(lambda s: s.last == self.prompt, "the prompt", 3)
            self.assertLess(time.monotonic() - began, 4)
        finally:
            os.kill(pid, signal.SIGCONT)
        self.edge.wait_overlay()

    def test_the_filter_behind_a_bar_picks_lines(self):
        rows = self.type("show interface | include access\r")
        self.assertEqual([row.split()[0] for row in rows], ["eth1", "eth2"])
        self.assertEqual(self.type("show interface | exclude access | x\r")[-1], "one filter a command")
        self.assertEqual(self.type("show services | count\r"), [str(len(self.edge.corvsh("show services").splitlines()))])

    def test_output_that_ends_inside_a_line_leaves_the_prompt_a_line_of_its_own(self):
        self.assertEqual(self.type("show lum vlan detail\r")[-1], "    eth2")
        self.assertEqual(self.terminal.screen.last, self.prompt)

    def test_what_is_printed_cannot_steer_the_terminal(self):
        self.edge.corvsh("configure terminal", "interface Overlay7", "lum vpn-name a\x9bb", check=False)
        self.addCleanup(self.edge.configure, "no interface Overlay7")
        self.type("show lum overlay summary\r")
        self.assertNotIn("\x9b", self.terminal.raw)

    # ---- tables at 80 columns

    def test_tables_fit_80_columns(self):
        vlans = ",".join(str(v) for v in range(100, 130, 2))
        self.edge.ns.ip("link add trunk0 type veth peer name trunk1",
                        "addr add 2001:db8:1111:2222:3333:4444:5555:6666/64 dev trunk1 nodad", "link set trunk1 up")
        self.addCleanup(self.edge.ns.ip, "link del trunk0")
        wait_until(lambda: "trunk0" in self.edge.corvsh("show interface"), 5, "the device is known")
        self.edge.configure("interface trunk0", "switchport", f"switchport trunk allowed vlan {vlans}")
        self.addCleanup(self.edge.configure, "interface trunk0", "no switchport")
        wait_until(lambda: "6666" in self.edge.corvsh("show interface"), 5, "the address is known")
        for command in ("show interface", "show services", "show drops", "show lum overlay", "show lum overlay summary",
                        "show lum vlan detail", "show lum interface", "show lum site", "show lum adjacency",
                        "show lum arp-nd-cache", "show lum version", "help"):
            for line in self.edge.corvsh(command).splitlines():
                self.assertLessEqual(len(line), 80, f"{command}: {line!r}")
        shown = self.edge.corvsh("show interface")
        self.assertIn("2001:db8:1111:2222:3333:4444:5555:6666\n", shown)
        self.assertEqual("".join(re.findall(r"(?:^trunk0 .*trunk      |^ {44})([\d,]+)$", shown, re.M)), vlans)

    def test_help_lines_fit_80_columns(self):
        for keys in ("?", "show lum overlay ?", CTRL_U + "debug lum packet ?", CTRL_U + "test lum rtab add ?"):
            self.choices(keys)                                   # looks at the width of every line


if __name__ == "__main__":
    unittest.main()
