#!/usr/bin/env python3
"""Writes the hand-made seeds of the regression corpus (tests/fuzz-regressions).

The DWARF seeds are sections cut out of the fixture dSYMs, framed the way
each fuzz target reads its input; the property-list, JSON and header seeds
are written out here. Run again after the fixtures change.
"""
import os
import struct
import subprocess
import sys

ROOT = os.path.abspath(os.path.join(os.path.dirname(__file__), ".."))
OUT = os.path.join(ROOT, "tests", "fuzz-regressions")


def sections_of(path):
    """The __DWARF sections of a thin 64-bit little-endian Mach-O file."""
    data = open(path, "rb").read()
    magic, _, _, _, ncmds, _, _, _ = struct.unpack_from("<IiiIIIII", data, 0)
    if magic != 0xFEEDFACF:
        return {}
    offset, found = 32, {}
    for _ in range(ncmds):
        cmd, size = struct.unpack_from("<II", data, offset)
        if cmd == 0x19:  # LC_SEGMENT_64
            nsects = struct.unpack_from("<I", data, offset + 64)[0]
            for i in range(nsects):
                at = offset + 72 + i * 80
                name = data[at:at + 16].rstrip(b"\0").decode()
                size64, fileoff = struct.unpack_from("<QI", data, at + 40)
                found[name] = data[fileoff:fileoff + size64]
        offset += size
    return found


def write(target, name, data):
    folder = os.path.join(OUT, target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def dwarf_seeds():
    fixtures = os.path.join(ROOT, "tests", "fixtures")
    for bundle, label in (("Hello.dSYM", "hello"), ("Dwarf5.dSYM", "dwarf5")):
        stem = bundle.split(".")[0]
        sections = sections_of(os.path.join(fixtures, bundle, "Contents", "Resources", "DWARF", stem))
        line = sections.get("__debug_line", b"")
        if line:
            version = struct.unpack_from("<H", line, 4)[0]
            # First byte: version - 2 in its low bits, bit 4 clear for 8-byte addresses.
            write("dwarf_line_program_fuzzer", f"seed-{label}-line", bytes([(version - 2) % 4]) + line)
        abbrev, info = sections.get("__debug_abbrev", b""), sections.get("__debug_info", b"")
        if abbrev and info:
            body = abbrev + info
            write("dwarf_dies_fuzzer", f"seed-{label}-dies", struct.pack("<H", len(abbrev)) + body)


TEXT_SEEDS = {
    "property_list_fuzzer": {
        "seed-service.plist": b"""<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
\t<key>OMVARA_APP_ID</key>
\t<string>1:1234567890:ios:abcdef0123456789</string>
\t<key>PROJECT_ID</key>
\t<string>symlift-example</string>
\t<key>IS_ENABLED</key>
\t<true/>
\t<key>PORT</key>
\t<integer>-42</integer>
\t<key>RATIO</key>
\t<real>0.5</real>
\t<key>BLOB</key>
\t<data>AAECAw==</data>
\t<key>WHEN</key>
\t<date>2024-01-02T03:04:05Z</date>
\t<key>LIST</key>
\t<array><string>a</string><dict/></array>
</dict>
</plist>
""",
        "seed-not-a-dict.plist": b"<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>x</string></array></plist>",
        "seed-entities.plist": b"<plist><dict><key>OMVARA_APP_ID</key><string>&lt;a&amp;b&#x41;&#65;</string></dict></plist>",
    },
    "lumo_json_fuzzer": {
        "seed-app-id.json": b'{"OMVARA_APP_ID": "  1:1234567890:ios:abcdef \\n"}\n',
        "seed-unicode-spaces.json": '{"OMVARA_APP_ID": "\u3000\u00a0id\u2029\u0085", "other": [1, 2.5e3, null, true]}'.encode(),
        "seed-number.json": b'{"OMVARA_APP_ID": 12345}',
        "seed-array.json": b'["OMVARA_APP_ID"]',
        "seed-nested.json": b'{"a": {"b": [[[{"c": "\\ud83d\\ude00"}]]]}, "OMVARA_APP_ID": ""}',
    },
    "response_headers_fuzzer": {
        # Byte 0 picks the status (index into the fuzz target's table), byte 1 the request headers.
        "seed-success-json": b"\x00\x03HTTP/1.1 200 OK\r\nContent-Type: application/json; charset=utf-8\r\nX-Request-Id: abc\r\n\r\n",
        "seed-redirect-then-429": b"\x09\x01HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\nHTTP/2 429\r\nretry-after: 1.5e1\r\ncontent-type: text/plain\r\n\r\n",
        "seed-503-retry-after-date": b"\x0b\x00HTTP/1.1 503 Service Unavailable\r\nRetry-After: Wed, 21 Oct 2015 07:28:00 GMT\r\nX-Request-Id: a\r\nX-Request-Id: b\r\n\r\n",
        "seed-continue": b"\x01\x01HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 201 Created\r\n  Content-Type :\tapplication/json \r\nbroken line\r\n: no name\r\n",
        "seed-negative-retry": b"\x0a\x02HTTP/1.1 500 x\r\nRetry-After: -3\r\nContent-Type: application/json; charset=utf-8; charset=latin1\r\n",
    },
}


def macho_seeds():
    """Small hand-made Mach-O files: a fat file whose two entries share one
    thin arm64 slice, and that slice alone with a __DWARF segment whose
    section points past the end of the file."""
    uuid = bytes(range(16))
    commands = struct.pack("<II", 0x1B, 24) + uuid  # LC_UUID
    section = b"__debug_line".ljust(16, b"\0") + b"__DWARF".ljust(16, b"\0")
    section += struct.pack("<QQIIIIIIII", 0, 0x100, 0x7FFFFFF0, 0, 0, 0, 0, 0, 0, 0)
    segment = struct.pack("<II", 0x19, 72 + 80) + b"__DWARF".ljust(16, b"\0")
    segment += struct.pack("<QQQQiiII", 0, 0x1000, 0, 0x1000, 7, 3, 1, 0) + section
    commands += segment
    thin = struct.pack("<IiiIIIII", 0xFEEDFACF, 0x0100000C, 0, 0xA, 2, len(commands), 0, 0) + commands
    fat = struct.pack(">II", 0xCAFEBABE, 2)
    fat += struct.pack(">iiIII", 0x0100000C, 0, 48, len(thin), 0)
    fat += struct.pack(">iiIII", 0x01000007, 3, 48, len(thin), 0)
    fat = fat.ljust(48, b"\0") + thin
    write("macho_fuzzer", "seed-fat-shared-slice", fat)
    write("dwarf_slice_fuzzer", "seed-section-past-end", thin)


def main():
    macho_seeds()
    dwarf_seeds()
    for target, seeds in TEXT_SEEDS.items():
        for name, data in seeds.items():
            write(target, name, data)
    return 0


if __name__ == "__main__":
    sys.exit(main())
