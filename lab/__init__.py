"""Topologies in network namespaces: sites, edges and the routed core between them.

Used by the demo, the system tests and the measurements; nothing but Python's own library and the programs that
`./demo` and `./test` install. Everything made here lives in namespaces of its own and goes away with its Lab.
"""

from .netns import Lab, LabError, Namespace, Process, run, wait_until
from .topology import Core, Host, Topology, two_sites
from .edge import Edge, programs_dir
from .vxlan import VxlanEdge
from .capture import Capture

__all__ = ["Capture", "Core", "Edge", "Host", "Lab", "LabError", "Namespace", "Process", "Topology", "VxlanEdge",
           "programs_dir", "run", "two_sites", "wait_until"]
