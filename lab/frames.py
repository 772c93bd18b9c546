"""Decoding and building of frames, by the tests' own code: nothing here is shared with what it judges.

Decoders return dataclasses of integers, address texts and bytes, or raise FrameError; builders return bytes. The VLAN
tag of a frame inside the overlay has its control field low byte first; `Frame.overlay_vlan` reads it that way,
`Frame.vlan` as 802.1Q has it on a wire.
"""

import ipaddress
import struct
from dataclasses import dataclass, field

OVERLAY_PORT = 8472
SHIM = 4

ETH_IPV4, ETH_ARP, ETH_VLAN, ETH_IPV6 = 0x0800, 0x0806, 0x8100, 0x86DD
ICMP, TCP, UDP, GRE, ICMP6, FRAGMENT6 = 1, 6, 17, 47, 58, 44
BROADCAST = "ff:ff:ff:ff:ff:ff"


class FrameError(Exception):
    """The bytes are not what they claim to be."""


def need(data, size, what):
    if len(data) < size:
        raise FrameError(f"{what}: {len(data)} of {size} bytes")


def mac_bytes(text):
    return bytes.fromhex(text.replace(":", ""))


def mac_text(data):
    return data.hex(":")


def ip_bytes(text):
    return ipaddress.ip_address(text).packed


def checksum(data):
    """The Internet checksum of the bytes; 0 over a block that holds a right one."""
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


# ---- decoded forms

@dataclass
class Frame:
    """An Ethernet frame; `ethertype` and `payload` are what stands behind the tag, if there is one."""
    raw: bytes
    dst: str
    src: str
    ethertype: int
    payload: bytes
    tag: bytes | None = None                                 # the tag control field's two bytes
    snap: bool = False

    @property
    def vlan(self):
        return None if self.tag is None else (self.tag[0] & 0x0F) << 8 | self.tag[1]

    @property
    def priority(self):
        return None if self.tag is None else self.tag[0] >> 5

    @property
    def overlay_vlan(self):
        return None if self.tag is None else (self.tag[1] & 0x0F) << 8 | self.tag[0]

    def ip(self):
        """The IP packet inside, None when it is something else."""
        if self.ethertype == ETH_IPV4:
            return decode_ipv4(self.payload)
        return decode_ipv6(self.payload) if self.ethertype == ETH_IPV6 else None

    def arp(self):
        return decode_arp(self.payload) if self.ethertype == ETH_ARP else None


@dataclass
class Ip:
    version: int
    src: str
    dst: str
    protocol: int
    hop_limit: int
    traffic_class: int
    payload: bytes
    header: bytes
    identification: int = 0
    offset: int = 0                                          # of this fragment, in bytes
    more: bool = False

    @property
    def fragment(self):
        return self.more or self.offset > 0

    def udp(self):
        return decode_udp(self) if self.protocol == UDP and not self.fragment else None

    def icmp(self):
        return decode_icmp(self.payload) if self.protocol in (ICMP, ICMP6) and not self.fragment else None

    def pseudo_header(self, length):
        if self.version == 4:
            return ip_bytes(self.src) + ip_bytes(self.dst) + struct.pack("!BBH", 0, self.protocol, length)
        return ip_bytes(self.src) + ip_bytes(self.dst) + struct.pack("!I3xB", length, self.protocol)

    def transport_checksum_ok(self):
        """Whether the checksum of TCP, UDP or ICMP holds. A UDP checksum of zero over IPv4 says there is none."""
        if self.fragment:
            raise FrameError("checksum of a fragment")
        if self.protocol == UDP and self.version == 4 and self.payload[6:8] == b"\0\0":
            return True
        if self.protocol == ICMP:
            return checksum(self.payload) == 0
        return checksum(self.pseudo_header(len(self.payload)) + self.payload) == 0


@dataclass
class Udp:
    src_port: int
    dst_port: int
    length: int
    checksum: int
    payload: bytes


@dataclass
class Icmp:
    type: int
    code: int
    rest: bytes


@dataclass
class Arp:
    operation: int
    sender_mac: str
    sender_ip: str
    target_mac: str
    target_ip: str


@dataclass
class OverlayPacket:
    """A packet of the overlay on the core, from its outer IP header on."""
    packet: bytes
    ip: Ip
    udp: Udp
    shim: bytes
    inner: Frame

    @property
    def vlan(self):
        return self.inner.overlay_vlan


# ---- decoders

def decode_ethernet(data):
    need(data, 14, "Ethernet header")
    at, kind, snap = 14, int.from_bytes(data[12:14], "big"), False
    if kind <= 0x600:
        need(data, 22, "SNAP header")
        at, kind, snap = 22, int.from_bytes(data[20:22], "big"), True
    tag = None
    if kind == ETH_VLAN:
        need(data, at + 4, "VLAN tag")
        tag, kind = data[at:at + 2], int.from_bytes(data[at + 2:at + 4], "big")
        at += 4
    return Frame(bytes(data), mac_text(data[0:6]), mac_text(data[6:12]), kind, bytes(data[at:]), tag, snap)


def decode_ipv4(data):
    need(data, 20, "IPv4 header")
    if data[0] >> 4 != 4:
        raise FrameError(f"IP version {data[0] >> 4} behind the IPv4 type")
    size, total = (data[0] & 0x0F) * 4, int.from_bytes(data[2:4], "big")
    if size < 20 or total < size:
        raise FrameError(f"IPv4 header length {size}, total length {total}")
    need(data, total, "IPv4 packet")
    if checksum(bytes(data[:size])) != 0:
        raise FrameError("IPv4 header checksum is wrong")
    flags = int.from_bytes(data[6:8], "big")
    return Ip(4, str(ipaddress.ip_address(bytes(data[12:16]))), str(ipaddress.ip_address(bytes(data[16:20]))), data[9],
              data[8], data[1], bytes(data[size:total]), bytes(data[:size]), int.from_bytes(data[4:6], "big"),
              (flags & 0x1FFF) * 8, bool(flags & 0x2000))


def decode_ipv6(data):
    need(data, 40, "IPv6 header")
    if data[0] >> 4 != 6:
        raise FrameError(f"IP version {data[0] >> 4} behind the IPv6 type")
    length = int.from_bytes(data[4:6], "big")
    need(data, 40 + length, "IPv6 packet")
    ip = Ip(6, str(ipaddress.ip_address(bytes(data[8:24]))), str(ipaddress.ip_address(bytes(data[24:40]))), data[6],
            data[7], (data[0] & 0x0F) << 4 | data[1] >> 4, bytes(data[40:40 + length]), bytes(data[:40]))
    if ip.protocol == FRAGMENT6:
        need(ip.payload, 8, "IPv6 fragment header")
        place = int.from_bytes(ip.payload[2:4], "big")
        ip.offset, ip.more = place & ~7, bool(place & 1)
        ip.identification = int.from_bytes(ip.payload[4:8], "big")
        ip.protocol, ip.payload = ip.payload[0], ip.payload[8:]
    return ip


def decode_udp(ip):
    need(ip.payload, 8, "UDP header")
    src, dst, length, total = struct.unpack("!HHHH", ip.payload[:8])
    if length < 8 or length > len(ip.payload):
        raise FrameError(f"UDP length {length} of {len(ip.payload)}")
    return Udp(src, dst, length, total, ip.payload[8:length])


def decode_icmp(data):
    need(data, 4, "ICMP header")
    return Icmp(data[0], data[1], bytes(data[4:]))


def decode_arp(data):
    need(data, 28, "ARP")
    if data[:6] != b"\0\1\x08\0\6\4":
        raise FrameError(f"ARP for other than IPv4 over Ethernet: {data[:6].hex()}")
    return Arp(int.from_bytes(data[6:8], "big"), mac_text(data[8:14]), str(ipaddress.ip_address(bytes(data[14:18]))),
               mac_text(data[18:24]), str(ipaddress.ip_address(bytes(data[24:28]))))


def decode_overlay(ip, port=OVERLAY_PORT):
    """The overlay packet in a whole IP packet; None when it is something else."""
    if ip is None or ip.protocol != UDP or ip.fragment:
        return None
    udp = decode_udp(ip)
    if udp.dst_port != port:
        return None
    need(udp.payload, SHIM, "shim")
    return OverlayPacket(ip.header + ip.payload, ip, udp, udp.payload[:SHIM], decode_ethernet(udp.payload[SHIM:]))


@dataclass
class Reassembler:
    """Puts IP fragments together. add() gives a whole packet as soon as there is one, else None."""
    parts: dict = field(default_factory=dict)

    def add(self, ip):
        if not ip.fragment:
            return ip
        key = (ip.version, ip.src, ip.dst, ip.identification, ip.protocol)
        pieces = self.parts.setdefault(key, [])
        pieces.append(ip)
        pieces.sort(key=lambda piece: piece.offset)
        at = 0
        for piece in pieces:
            if piece.offset > at:
                return None
            if piece.offset < at:
                raise FrameError(f"fragments overlap at {piece.offset}")
            at += len(piece.payload)
        if pieces[-1].more:
            return None
        del self.parts[key]
        first = pieces[0]
        return Ip(first.version, first.src, first.dst, first.protocol, first.hop_limit, first.traffic_class,
                  b"".join(piece.payload for piece in pieces), first.header, first.identification)


def overlay_packets(frames, port=OVERLAY_PORT):
    """The overlay packets among captured Ethernet frames, fragments put together."""
    whole, found = Reassembler(), []
    for frame in frames:
        try:
            ip = decode_ethernet(frame).ip()
            ip = whole.add(ip) if ip else None
            packet = decode_overlay(ip, port) if ip else None
        except FrameError as error:
            raise FrameError(f"{error} in {frame.hex()}") from error
        if packet:
            found.append(packet)
    return found


# ---- builders

def ethernet(dst, src, ethertype, payload, vlan=None, priority=0):
    tag = b"" if vlan is None else struct.pack("!HH", ETH_VLAN, priority << 13 | vlan)
    return mac_bytes(dst) + mac_bytes(src) + tag + struct.pack("!H", ethertype) + payload


def snap(dst, src, protocol, payload, oui=b"\0\0\0"):
    body = b"\xaa\xaa\x03" + oui + struct.pack("!H", protocol) + payload
    return mac_bytes(dst) + mac_bytes(src) + struct.pack("!H", len(body)) + body


def overlay_tagged(frame, vlan):
    """The untagged frame as it travels inside the overlay: tagged, the control field low byte first."""
    return frame[:12] + b"\x81\x00" + struct.pack("<H", vlan) + frame[12:]


def arp(operation, sender_mac, sender_ip, target_mac, target_ip):
    return (b"\0\1\x08\0\6\4" + struct.pack("!H", operation) + mac_bytes(sender_mac) + ip_bytes(sender_ip)
            + mac_bytes(target_mac) + ip_bytes(target_ip))


def ipv4(src, dst, protocol, payload, ttl=64, tos=0, identification=0, flags=0):
    head = struct.pack("!BBHHHBBH", 0x45, tos, 20 + len(payload), identification, flags, ttl, protocol, 0)
    head += ip_bytes(src) + ip_bytes(dst)
    return head[:10] + struct.pack("!H", checksum(head)) + head[12:] + payload


def ipv6(src, dst, protocol, payload, hop_limit=64):
    return struct.pack("!IHBB", 6 << 28, len(payload), protocol, hop_limit) + ip_bytes(src) + ip_bytes(dst) + payload


def udp(src, dst, src_port, dst_port, payload):
    """A UDP datagram with its checksum, for IPv4 or IPv6 by the addresses."""
    head = struct.pack("!HHHH", src_port, dst_port, 8 + len(payload), 0)
    version = ipaddress.ip_address(src).version
    ip = Ip(version, src, dst, UDP, 0, 0, b"", b"")
    total = checksum(ip.pseudo_header(8 + len(payload)) + head + payload) or 0xFFFF
    return head[:6] + struct.pack("!H", total) + payload


def icmp_echo(identifier, sequence, payload=b"", reply=False):
    head = struct.pack("!BBHHH", 0 if reply else 8, 0, 0, identifier, sequence)
    return head[:2] + struct.pack("!H", checksum(head + payload)) + head[4:] + payload


def neighbour_solicitation(src, src_mac, target):
    """An IPv6 packet that asks for the MAC of `target`, from a host that names its own."""
    solicited = ip_bytes("ff02::1:ff00:0")[:13] + ip_bytes(target)[13:]
    dst = str(ipaddress.ip_address(solicited))
    body = struct.pack("!BBHI", 135, 0, 0, 0) + ip_bytes(target)
    body += b"\1\1" + mac_bytes(src_mac) if ip_bytes(src) != bytes(16) else b""
    total = checksum(Ip(6, src, dst, ICMP6, 0, 0, b"", b"").pseudo_header(len(body)) + body)
    return ipv6(src, dst, ICMP6, body[:2] + struct.pack("!H", total) + body[4:], hop_limit=255)


def udp_frame(src_host_mac, dst_host_mac, src_ip, dst_ip, payload, src_port=4000, dst_port=4001, vlan=None):
    datagram = udp(src_ip, dst_ip, src_port, dst_port, payload)
    six = ":" in src_ip
    packet = (ipv6 if six else ipv4)(src_ip, dst_ip, UDP, datagram)
    return ethernet(dst_host_mac, src_host_mac, ETH_IPV6 if six else ETH_IPV4, packet, vlan)
