"""Who may use the shell: root and the group corvane everything, corvane-view to look, nobody else; and what is logged.

`ip netns exec` puts the files of /etc/netns/NAME over those of /etc: the groups exist in the edge's namespace only.
"""

import pwd
import shutil
import unittest
from pathlib import Path

from lab import Edge, Lab, two_sites

NOBODY = pwd.getpwnam("nobody").pw_uid
FULL, VIEW, OTHER = 48001, 48002, 48003


class ShellAccess(unittest.TestCase):
    """One edge, and shells of a user that is not root."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10,), group_routes=False)
        cls.edge = Edge(cls.top, 1)
        etc = Path("/etc/netns") / cls.edge.ns.name
        etc.mkdir(parents=True)
        cls.addClassCleanup(shutil.rmtree, etc)
        others = [line for line in Path("/etc/group").read_text().splitlines() if not line.startswith("corvane")]
        (etc / "group").write_text("\n".join([*others, f"corvane:x:{FULL}:", f"corvane-view:x:{VIEW}:"]) + "\n")
        # The programs and the root have to be within reach of that user: the build and the lab may not be.
        cls.shell = Path("/run") / f"{cls.lab.name}-corvsh"
        shutil.copy2(cls.edge.programs / "corvsh", cls.shell)
        cls.addClassCleanup(cls.shell.unlink)
        cls.root = Path("/run") / f"{cls.lab.name}-root"
        cls.addClassCleanup(shutil.rmtree, cls.root, True)
        cls.edge.root = cls.root
        cls.edge.start()
        cls.edge.wait_overlay()

    def corvsh(self, *commands, gid=OTHER, groups=(), uid=NOBODY):
        """Exit status and everything printed by a shell of that user and those groups."""
        argv = [item for command in commands for item in ("-c", command)]
        extra = ["--groups", ",".join(map(str, groups))] if groups else ["--clear-groups"]
        done = self.edge.ns.run("setpriv", f"--reuid={uid}", f"--regid={gid}", *extra, self.shell, "--root", self.root,
                                *argv, check=False)
        return done.returncode, done.stdout + done.stderr

    def site_vlan(self):
        return self.edge.overlay()["Site-vlan"]

    def test_a_user_in_neither_group_is_refused_and_that_is_logged(self):
        status, text = self.corvsh("show services")
        self.assertEqual((status, text), (1, "corvsh: permission denied: not in the group corvane or corvane-view\n"))
        self.edge.wait_log("a shell of nobody is refused: not in the group corvane or corvane-view")

    def test_a_member_of_corvane_may_configure(self):
        for where in ({"gid": FULL}, {"groups": (OTHER, FULL)}):
            self.assertEqual(self.corvsh("configure terminal", "lum vpn-site-vlan 31", **where), (0, ""))
            self.assertEqual(self.site_vlan(), "31")
            self.edge.configure("no lum vpn-site-vlan")

    def test_a_supplementary_group_counts_among_hundreds_of_others(self):
        groups = [*range(60000, 60300), FULL]
        self.assertEqual(self.corvsh("show services | count", groups=groups)[0], 0)

    def test_a_member_of_corvane_view_may_look_and_not_change(self):
        for where in ({"gid": VIEW}, {"groups": (OTHER, VIEW)}):
            status, text = self.corvsh("show lum overlay", "show running-config", "show interface | json", **where)
            self.assertEqual(status, 0, text)
            self.assertIn("Overlay Interface Overlay1", text)
            for command in ("configure terminal", "write", "restart lum", "switchover", "debug lum event",
                            "test lum rtab close", "configure file /etc/hostname", "configure file /etc/hostname --check"):
                status, text = self.corvsh(command, **where)
                self.assertEqual(status, 1, command)
                self.assertIn("permission denied: members of corvane-view may look, not change", text, command)

    def test_a_line_that_changes_something_cannot_hide_behind_a_mode_that_was_not_entered(self):
        status, text = self.corvsh("configure terminal", "lum vpn-site-vlan 32", "interface Overlay9", gid=VIEW)
        self.assertEqual(status, 1)
        self.assertNotEqual(self.site_vlan(), "32")
        self.assertNotIn("Overlay9", self.edge.corvsh("show running-config"))

    def test_completion_offers_a_viewer_only_what_it_may_do(self):
        done = self.edge.ns.run("setpriv", f"--reuid={NOBODY}", f"--regid={VIEW}", "--clear-groups", self.shell, "--root",
                                self.root, "--complete", "")
        self.assertIn("show", done.stdout.split())
        self.assertFalse({"configure", "write", "debug", "restart"} & set(done.stdout.split()))

    def test_both_groups_give_the_right_to_change(self):
        self.assertEqual(self.corvsh("configure terminal", groups=(VIEW, FULL)), (0, ""))

    def test_who_entered_which_configuring_command_is_logged(self):
        self.corvsh("configure terminal", "interface Overlay1", "lum vpn-name two words", "lum vpn-name red",
                    "no lum vpn-name green", "exit", "lum vpn-site-vlan 33", "no lum vpn-site-vlan", gid=FULL)
        self.edge.configure("interface Overlay1", "lum vpn-name blue")
        log = self.edge.output()
        self.assertRegex(log, r"nobody \(pid \d+\) \[Overlay1\]: lum vpn-name red\n")
        self.assertRegex(log, r"nobody \(pid \d+\) \[Overlay1\]: no lum vpn-name green \(rejected\)\n")
        self.assertRegex(log, r"nobody \(pid \d+\): lum vpn-site-vlan 33\n")
        self.assertRegex(log, r"nobody \(pid \d+\): no lum vpn-site-vlan\n")
        self.assertRegex(log, r"root \(pid \d+\) \[Overlay1\]: lum vpn-name blue\n")

    def test_looking_is_not_logged(self):
        self.corvsh("show lum site", gid=FULL)
        self.assertNotIn("show lum site", self.edge.output())

    def test_the_other_sockets_admit_no_viewer(self):
        """Clients of the bus and of the command server can change everything."""
        bus = Path("/run") / f"{self.lab.name}-corvbus"
        shutil.copy2(self.edge.programs / "corvbus", bus)
        self.addCleanup(bus.unlink)
        def services(*who):
            return self.edge.ns.run("setpriv", f"--reuid={NOBODY}", *who, bus, "--root", self.root, "services", check=False)
        self.assertNotEqual(services(f"--regid={VIEW}", "--clear-groups").returncode, 0)
        self.assertEqual(services(f"--regid={OTHER}", "--groups", f"{OTHER},{FULL}").returncode, 0)


if __name__ == "__main__":
    unittest.main()
