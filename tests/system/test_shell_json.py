"""`| json`: every show command of a running edge, read by a JSON parser and held against the table itself."""

import contextlib
import json
import os
import re
import struct
import subprocess
import unittest
from pathlib import Path

from lab import Edge, Lab, LabError, frames, two_sites, wait_until

ROOT = Path(__file__).resolve().parent.parent.parent
ADD_ADJACENCY, MAIN_SAP = 78858, 442
VPN = 'blue "sky" \\ x'


def shapes():
    """The documented shapes by schema, and the show commands of the grammar with their schema."""
    text = (ROOT / "platform/corvaned/cmdsrv_json_schemas.def").read_text()
    by_schema = {name: json.loads(shape) for name, shape in re.findall(r'\("([^"]+)", \w+, R"\((.*)\)"\)', text)}
    commands = {}
    for file in ("platform.cli", "lum.cli"):
        for block in (ROOT / "platform/grammar" / file).read_text().split("\ncommand ")[1:]:
            syntax = re.search(r"^  syntax\s+(show .*)$", block, re.M)
            if syntax:
                commands[syntax.group(1)] = re.search(r"^  json\s+(\S+)$", block, re.M).group(1)
    return by_schema, commands


class ShellJson(unittest.TestCase):
    """One edge with something in every table."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10, 20), group_routes=False)
        cls.edge = Edge(cls.top, 1)
        quoted = VPN.replace("\\", "\\\\").replace('"', '\\"')
        config = cls.edge.config(local_routes=True).replace("vpn-name blue", f'vpn-name "{quoted}"')
        cls.edge.start(config + "lum vpn-site-vlan 7\ninterface Overlay2\n  lum no-such-command\n")
        cls.edge.wait_overlay()
        host = cls.top.host(1, 10)
        host.speak()
        wait_until(lambda: host.ipv4 in cls.edge.corvsh("show lum arp-nd-cache"), 10, "the host is in the cache")
        host.neighbour("10.1.10.77", "02:00:00:00:77:77")
        with contextlib.suppress(LabError):
            host.ping("10.1.10.77", count=1, wait=0.2)           # to a MAC without route: a drop

        iod = int(re.search(r"^Overlay1\s+(\d+)", cls.edge.corvsh("show interface"), re.M).group(1))
        for site, own, last in ((0, 0, 2), (1, 1, 3)):
            word = struct.unpack(">I", frames.ip_bytes(f"198.18.2.{last}"))[0]
            payload = struct.pack("=I6sB", iod, frames.mac_bytes(f"02:00:00:00:ed:0{last}"), 0)
            payload += struct.pack("=II12x8xII", 4, word, site, own)
            cls.edge.corvbus("send", str(MAIN_SAP), str(ADD_ADJACENCY), payload.hex())

    def show(self, command):
        text = self.edge.corvsh(f"{command} | json")
        try:
            return json.loads(text)
        except json.JSONDecodeError as error:
            self.fail(f"{command} | json: {error}\n{text}")

    def assert_shape(self, value, shape, where):
        if isinstance(shape, str):
            kinds = {"text": str, "number": int, "bool": bool}
            allowed = kinds[shape.removesuffix(" or null")]
            self.assertTrue(type(value) is allowed or (value is None and shape.endswith(" or null")), f"{where}: {value!r}")
        elif isinstance(shape, list):
            self.assertIsInstance(value, list, where)
            for element in value:
                self.assert_shape(element, shape[0], where + "[]")
        else:
            names = {name.removesuffix("?"): kind for name, kind in shape.items()}
            self.assertLessEqual({n for n in shape if not n.endswith("?")}, set(value), where)
            self.assertLessEqual(set(value), set(names), where)
            for name, element in value.items():
                self.assert_shape(element, names[name], f"{where}.{name}")

    def test_every_show_command_prints_what_its_document_says(self):
        by_schema, commands = shapes()
        variants = {"show lum overlay": ["", " Overlay1", " summary"], "show lum vlan": ["", " detail", " authoritative"],
                    "show lum internal sdb": [" overlay", " adjacency"], "show lum site": ["", " Overlay1"]}
        seen = set()
        for syntax, schema in commands.items():
            plain = re.split(r" [\[{(]", syntax)[0]
            for end in variants.get(plain, [""]):
                self.assert_shape(self.show(plain + end), by_schema[schema], plain + end)
            seen.add(schema)
        self.assertEqual(seen, set(by_schema))

    def test_the_overlay_is_the_one_of_the_table(self):
        table, (overlay,) = self.edge.overlay(), self.show("show lum overlay Overlay1")["overlays"]
        self.assertEqual(overlay["name"], VPN)
        self.assertEqual(overlay["name"], table["VPN Name"])
        self.assertEqual(str(overlay["vpn_id"]), table["VPN ID"])
        self.assertEqual(overlay["external_ipv4"], table["External IPv4 address"])
        self.assertEqual(overlay["site_vlan"], 7)
        summary = {o["interface"]: o for o in self.show("show lum overlay summary")["overlays"]}
        self.assertEqual(summary["Overlay1"]["name"], VPN)
        self.assertEqual(summary["Overlay2"]["reason"], "Incomplete Parameters")

    def test_ports_and_vlans_are_those_of_the_table(self):
        vlans = {v["vlan"]: v for v in self.show("show lum vlan detail")["vlans"]}
        self.assertEqual(sorted(vlans), [10, 20])
        self.assertEqual(vlans[10]["port_list"], ["eth1"])
        self.assertEqual((vlans[20]["overlay"], vlans[20]["name"], vlans[20]["external_interface"]), ("Overlay1", VPN, "eth0"))
        ports = {p["interface"]: p["vlan"] for p in self.show("show lum interface")["ports"]}
        self.assertEqual(ports, {"eth1": 10, "eth2": 20})
        interfaces = {i["interface"]: i for i in self.show("show interface")["interfaces"]}
        self.assertEqual(interfaces["eth0"]["addresses"], [self.top.edge_address(1), "2001:db8:1::1"])
        self.assertEqual((interfaces["eth2"]["mode"], interfaces["eth2"]["vlans"]), ("access", "20"))

    def test_the_cache_and_the_drops_are_those_of_the_table(self):
        host = self.top.host(1, 10)
        entries = {e["address"]: (e["vlan"], e["mac"]) for e in self.show("show lum arp-nd-cache")["entries"]}
        self.assertEqual(entries[host.ipv4], (10, host.mac))
        drops = {d["reason"]: d["count"] for d in self.show("show drops")["drops"]}
        self.assertEqual(drops, self.edge.drops())
        self.assertTrue(drops)

    def test_edge_devices_are_those_of_the_tables(self):
        adjacencies = {a["address"]: a for a in self.show("show lum adjacency")["adjacencies"]}
        self.assertIn("198.18.2.2", adjacencies)
        self.assertEqual(adjacencies["198.18.2.2"]["overlay"], "Overlay1")
        rows = re.findall(r"^(\S+) +(198\S+) +(\d+)$", self.edge.corvsh("show lum adjacency"), re.M)
        self.assertEqual([(a["system_id"], a["address"], str(a["tunnel_iod"])) for a in adjacencies.values()], rows)
        records = {r["address"]: r["mac"] for r in self.show("show lum internal sdb adjacency")["records"]}
        self.assertEqual(records, {a["address"]: a["system_id"] for a in adjacencies.values()})
        site = {o["overlay"]: o["adjacencies"] for o in self.show("show lum site")["overlays"]}
        rows = re.findall(r"^([* ]) (02\S+) +(-?\d+) +(\d+)$", self.edge.corvsh("show lum site"), re.M)
        self.assertEqual([("*" if a["local"] else " ", a["system_id"], str(a["priority"]), str(a["ordinal"]))
                          for a in site[VPN]], rows)
        self.assertEqual([row[0] for row in rows], ["*"])

    def test_services_version_and_log_are_those_of_the_tables(self):
        services = {s["number"]: s for s in self.show("show services")["services"]}
        self.assertEqual((services[581]["name"], services[581]["pid"]), ("lum", self.edge.lum_pid()))
        version = self.show("show lum version")["version"]
        self.assertIn(f"Revision   : {version['revision']}\n", self.edge.corvsh("show lum version"))
        self.assertRegex(version["revision"], r"^[0-9a-f]{7,}|-g[0-9a-f]{7,}" if (ROOT / ".git").exists() else ".")
        log = self.show("show logging")["log"]
        self.assertIn(self.edge.process.pid, [entry["pid"] for entry in log if entry["process"] == "corvaned"])

    def test_the_configuration_comes_line_by_line(self):
        lines = self.show("show running-config")["configuration"]
        self.assertEqual([line["line"] for line in lines],
                         [line.strip() for line in self.edge.corvsh("show running-config").splitlines()])
        self.assertIn({"interface": "eth1", "line": "switchport access vlan 10"}, lines)
        self.assertIn({"interface": None, "line": "lum vpn-site-vlan 7"}, lines)

    def test_startup_lines_that_were_refused_are_a_list(self):
        errors = self.show("show configuration-errors")["errors"]
        self.assertEqual(len(errors), 1, errors)
        self.assertIn("no-such-command", errors[0])

    def test_a_device_whose_name_is_no_utf8_leaves_the_json_valid(self):
        name = b"a\xff\xc3(\"\\b"
        run = [b"ip", b"netns", b"exec", os.fsencode(self.edge.ns.name), b"ip", b"link"]
        subprocess.run([*run, b"add", name, b"type", b"bridge"], check=True)
        self.addCleanup(subprocess.run, [*run, b"del", name], check=True)
        wait_until(lambda: any(i["interface"] == 'a��("\\b' for i in self.show("show interface")["interfaces"]), 5,
                   "the device is shown")

    def test_a_command_without_json_says_so(self):
        self.assertIn("this command has no JSON form", self.edge.corvsh("help | json", check=False))


if __name__ == "__main__":
    unittest.main()
