"""The client of docs/clients.md, compiled and run as the page prints it."""

import os
import re
import shlex
import tempfile
import unittest
from pathlib import Path

from lab import run, wait_until

from .base import TwoSites

ROOT = Path(__file__).resolve().parent.parent.parent
PAGE = ROOT / "docs" / "clients.md"


def block(language):
    """The page's code block of a language."""
    return re.search(rf"```{language}\n(.*?)```", PAGE.read_text(), re.S).group(1)


def sanitizers_of(build):
    """Options that the libraries of a build want from whoever links them."""
    flags = re.search(r"^CMAKE_CXX_FLAGS:.*?=(.*)$", (build / "CMakeCache.txt").read_text(), re.M).group(1)
    return [flag for flag in flags.split() if flag.startswith("-fsanitize")]


class ClientOfThePage(TwoSites):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.edge = cls.edges[1]
        cls.iod = int(cls.edge.overlay()["VPN ID"])
        folder = Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.program = folder / "follower"
        (folder / "follower.cpp").write_text(block("cpp"))
        compile_line = block("sh").splitlines()[0]
        compile_line = compile_line.replace("build/release", str(cls.edge.programs.parent))
        compile_line = compile_line.replace("-o follower follower.cpp", f"-o {cls.program} {folder / 'follower.cpp'}")
        run(*shlex.split(compile_line), *sanitizers_of(cls.edge.programs.parent), "-Wall", "-Wextra", "-Werror", timeout=120)

    def setUp(self):
        self.log = self.edge.dir / f"follower-{self.id()}"
        self.client = self.edge.ns.spawn(self.program, log=self.log, env={**os.environ, "CORVANE_ROOT": str(self.edge.root)})
        self.wait_for(f"overlay {self.iod} state 2")         # read from the database, so it has subscribed

    def tearDown(self):
        super().tearDown()
        self.client.stop()

    def lines(self):
        return self.log.read_text().splitlines()

    def wait_for(self, line, count=1):
        wait_until(lambda: self.lines().count(line) >= count, 5, f"the client prints {line!r}")

    def test_it_is_as_short_as_the_page_says(self):
        self.assertLessEqual(len(block("cpp").splitlines()), 40)

    def test_it_follows_an_overlay_down_and_up(self):
        self.edge.configure("interface Overlay1", "shutdown")
        self.wait_for(f"overlay {self.iod} state 1")
        self.edge.configure("interface Overlay1", "no shutdown")
        self.wait_for(f"overlay {self.iod} state 2", count=2)

    def test_it_sees_vlans_change_hands(self):
        self.edge.configure("interface Overlay1", "lum vpn-vlan 10,20,77")
        self.wait_for(f"vlan 77 overlay {self.iod}")
        self.edge.configure("interface Overlay1", "lum vpn-vlan 10,20")
        self.wait_for("vlan 77 overlay 0")

    def test_it_lets_a_deleted_overlay_go(self):
        self.edge.configure("interface Overlay7", "lum vpn-name red")
        wait_until(lambda: "Overlay7" in self.edge.corvsh("show lum overlay summary"), 5, "the overlay is there")
        iod = int(self.edge.overlay("Overlay7")["VPN ID"])
        self.wait_for(f"overlay {iod} state 1")
        self.edge.configure("no interface Overlay7")
        self.wait_for(f"overlay {iod} state 1", count=2)
        wait_until(lambda: "Overlay7" not in self.edge.corvsh("show lum overlay summary"), 5, "the overlay is gone")


if __name__ == "__main__":
    unittest.main()
