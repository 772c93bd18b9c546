"""The kernel's own VXLAN and bridge on an edge device: what lum is measured against, and proof of the topology."""


class VxlanEdge:
    """One bridge and one VXLAN device a VLAN; flooding by the core group, learning by the kernel."""

    PORT = 4789

    def __init__(self, topology, site):
        self.topology, self.node = topology, topology.nodes[site]

    def start(self):
        group = self.topology.group
        for vlan in self.topology.vlans:
            self.node.ns.ip(
                f"link add vx{vlan} type vxlan id {vlan} group {group} dev eth0 dstport {self.PORT} ttl 64",
                f"link add br{vlan} type bridge",
                f"link set vx{vlan} master br{vlan}", f"link set vx{vlan} up", f"link set br{vlan} up")
        for device, vlan in self.node.ports.items():
            if vlan is not None:
                self.node.ns.ip(f"link set {device} master br{vlan}")

    def stop(self):
        for vlan in self.topology.vlans:
            self.node.ns.ip(f"link del vx{vlan}", f"link del br{vlan}")
