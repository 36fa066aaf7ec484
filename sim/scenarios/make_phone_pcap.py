#!/usr/bin/env python3
"""Writes phone.pcap: a phone that starts. One ARP request, then four RTP
packets over IPv4 and UDP, 20 ms apart, untagged. Run it beside the scenarios;
the file is checked in, and the same bytes come out every time."""
import struct
from pathlib import Path

PHONE = bytes.fromhex("001122abcdef")
GATEWAY = bytes.fromhex("00aa00000001")


def checksum(data):
    total = sum(struct.unpack(f">{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def arp():
    request = struct.pack(">HHBBH", 1, 0x0800, 6, 4, 1)
    request += PHONE + bytes([10, 0, 1, 1]) + bytes(6) + bytes([10, 0, 0, 1])
    return b"\xff" * 6 + PHONE + b"\x08\x06" + request + bytes(18)


def rtp(sequence):
    payload = struct.pack(">BBHII", 0x80, 0, sequence, sequence * 160, 0x1234) + b"\x7f" * 160
    source, target = bytes([10, 0, 1, 1]), bytes([10, 0, 0, 1])
    length = 8 + len(payload)
    pseudo = source + target + struct.pack(">BBH", 0, 17, length)
    udp = struct.pack(">HHHH", 5004, 5004, length, 0)
    udp = udp[:6] + struct.pack(">H", checksum(pseudo + udp + payload))
    ip = struct.pack(">BBHHHBBH", 0x45, 0, 20 + length, sequence, 0, 64, 17, 0) + source + target
    ip = ip[:10] + struct.pack(">H", checksum(ip)) + ip[12:]
    return GATEWAY + PHONE + b"\x08\x00" + ip + udp + payload


packets = [arp()] + [rtp(n) for n in range(1, 5)]
with open(Path(__file__).with_name("phone.pcap"), "wb") as file:
    file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
    for number, packet in enumerate(packets):
        file.write(struct.pack("<IIII", 1, number * 20000, len(packet), len(packet)) + packet)
