#!/usr/bin/env python3
"""Repairs a static library of GNU objects for lld: repair-unwind-tables.py IN OUT

A function in a section of its own has its unwind data in sections named after it, and lld takes those along by
their symbols. Debian strips the symbols of the ".pdata" sections from libstdc++.a, so lld drops these sections: an
exception that has to pass through such a function ends the program instead. Here each gets its symbol back.
"""
import struct
import sys

SECTION, SYMBOL = 40, 18
STATIC = 3


def repair(data):
    """@return the COFF object with a symbol for each section of unwind data that has none."""
    if len(data) < 20 or struct.unpack_from("<H", data)[0] != 0x8664:
        return data
    sections, _, table, count = struct.unpack_from("<HIII", data, 2)
    named, at = set(), 0
    while at < count:
        value, section, _, kind, aux = struct.unpack_from("<IhHBB", data, table + at * SYMBOL + 8)
        if kind == STATIC and value == 0 and aux == 1:
            named.add(section)
        at += 1 + aux
    strings = data[table + count * SYMBOL:]
    added = b""
    for number in range(1, sections + 1):
        header = 20 + (number - 1) * SECTION
        name = data[header:header + 8]
        if number in named or not name.startswith(b"/"):
            continue
        offset = int(name[1:].rstrip(b"\0"))
        if strings[offset:].startswith((b".pdata$", b".xdata$")):
            size, relocations = struct.unpack_from("<I", data, header + 16)[0], struct.unpack_from("<H", data, header + 32)[0]
            added += struct.pack("<IIIhHBB", 0, offset, 0, number, 0, STATIC, 1)
            added += struct.pack("<IHHIHBxxx", size, relocations, 0, 0, 0, 0)
    count += len(added) // SYMBOL
    return data[:12] + struct.pack("<I", count) + data[16:table] + data[table:len(data) - len(strings)] + added + strings


def main(source, target):
    library = open(source, "rb").read()
    out, at = b"!<arch>\n", 8
    while at < len(library):
        header, size = library[at:at + 60], int(library[at + 48:at + 58])
        body = library[at + 60:at + 60 + size]
        at += 60 + size + size % 2
        if header.startswith(b"/ "):
            continue  # The index: ranlib writes it anew.
        if not header.startswith(b"//"):
            body = repair(body)
        out += header[:48] + str(len(body)).ljust(10).encode() + header[58:60] + body + b"\n" * (len(body) % 2)
    open(target, "wb").write(out)


main(*sys.argv[1:])
