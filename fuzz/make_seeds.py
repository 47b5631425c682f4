#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/).

The seeds are committed; run this again only to change them. Each seed is a
well-formed input the target's code must handle, so the fuzzer starts from
inputs that reach deep into it rather than being refused at the first byte.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


# ---- line-monitor messages ----

def audio_response(token, status, stop):
    """A `^` event: type, token (255), status (i32), stop char, extra (i32)."""
    rec = bytearray(268)
    rec[0] = ord("^")
    rec[1:1 + len(token)] = token
    rec[256:260] = struct.pack("<i", status)
    rec[260] = ord(stop) if stop else 0
    return bytes(rec)


EVENTS = {
    "ring": b"R",
    "offhook": b"P",
    "onhook": b"p",
    "digit": b"#5",
    "callerid": b"X5551234 JOHN SMITH",
    "callerid-latin1": b"X5551234 JOS\xc9",
    "audio-stopped": audio_response(b"101", 4, "#"),
    "audio-complete": audio_response(b"0", 3, None),
    "call-placed": b"/" + b"token\0" + b"CONNECT",
    "busy": b"b",
    "fax": b"c",
    "flow-on": b"o",
    "silence": b"s",
    "unknown": b"\x7f",
}


def frame(payload):
    return struct.pack("<i", len(payload)) + payload


def line_monitor_seeds():
    for name, payload in EVENTS.items():
        write("lineisr", name, payload)
    write("lineisr", "empty", b"")
    write("lineisr", "longer-than-buffer", b"X" + b"5" * 4200)

    # dmp_read: the first byte picks the buffer (odd: the daemon's 4096
    # bytes; even: byte / 2 bytes).
    daemon, small = b"\x01", bytes([16])
    write("dmp_read", "one-frame", daemon + frame(b"R"))
    write("dmp_read", "frames", daemon + b"".join(frame(p) for p in EVENTS.values()))
    write("dmp_read", "empty-frame", daemon + frame(b"") + frame(b"R"))
    write("dmp_read", "header-cut", daemon + frame(b"R") + b"\x05\x00")
    write("dmp_read", "payload-cut", daemon + struct.pack("<i", 20) + b"short")
    write("dmp_read", "excess", small + frame(b"X5551234 a caller name") + frame(b"P"))
    write("dmp_read", "negative", daemon + struct.pack("<i", -1) + b"R")


# ---- D-Bus messages ----

ALIGN = {"y": 1, "b": 4, "n": 2, "q": 2, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8,
         "s": 4, "o": 4, "g": 1, "a": 4, "v": 1, "(": 8, "{": 8}


def complete_types(sig):
    """Splits a signature into its complete types."""
    out, i = [], 0
    while i < len(sig):
        j = i
        while sig[j] == "a":
            j += 1
        if sig[j] in "({":
            depth, k = 0, j
            while True:
                depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(sig[k], 0)
                k += 1
                if depth == 0:
                    break
            j = k
        else:
            j += 1
        out.append(sig[i:j])
        i = j
    return out


class Writer:
    def __init__(self):
        self.b = bytearray()

    def pad(self, n):
        while len(self.b) % n:
            self.b.append(0)

    def put(self, t, value):
        self.pad(ALIGN[t[0]])
        c = t[0]
        if c == "y":
            self.b += struct.pack("<B", value)
        elif c == "b":
            self.b += struct.pack("<I", 1 if value else 0)
        elif c in "nqiuxtd":
            self.b += struct.pack("<" + {"n": "h", "q": "H", "i": "i", "u": "I", "x": "q",
                                         "t": "Q", "d": "d"}[c], value)
        elif c in "so":
            raw = value.encode() if isinstance(value, str) else value
            self.b += struct.pack("<I", len(raw)) + raw + b"\0"
        elif c == "g":
            self.b += struct.pack("<B", len(value)) + value.encode() + b"\0"
        elif c == "v":
            sig, inner = value
            self.put("g", sig)
            self.put(sig, inner)
        elif c == "a":
            element = t[1:]
            self.pad(4)
            at = len(self.b)
            self.b += b"\0\0\0\0"
            self.pad(ALIGN[element[0]])
            start = len(self.b)
            for item in value:
                self.put(element, item)
            struct.pack_into("<I", self.b, at, len(self.b) - start)
        elif c in "({":
            for sub, item in zip(complete_types(t[1:-1]), value):
                self.put(sub, item)
        else:
            raise ValueError(t)


def message(sig, args, member="Dial", serial=1):
    body = Writer()
    for t, v in zip(complete_types(sig), args):
        body.put(t, v)
    fields = [(1, ("o", "/com/orvane/devicemaster")),
              (2, ("s", "com.orvane.devicemaster.listener.v2")),
              (3, ("s", member))]
    if sig:
        fields.append((8, ("g", sig)))
    head = Writer()
    head.b += b"l" + bytes([1, 0, 1]) + struct.pack("<II", len(body.b), serial)
    head.put("a(yv)", fields)
    head.pad(8)
    return bytes(head.b + body.b)


def bus_seeds():
    info = [("KALToken", ("s", "tok-1")), ("KALEventTimeKey", ("x", 1700000000)),
            ("nested", ("a{sv}", [("n", ("ai", [1, 2, 3]))])),
            ("bytes", ("ay", [0, 1, 255])), ("pair", ("(id)", [7, 2.5]))]
    write("bus_values", "strings", message("sssb", ["5551234", "FAKE0", "token", True]))
    write("bus_values", "dict", message("a{sv}", [info], member="SetLinePreferences"))
    write("bus_values", "notification",
          message("sva{sv}", ["KALQLXEvent", ("s", "FAKE0"), info],
                  member="RedistributeNotification"))
    write("bus_values", "variant-nested",
          message("v", [("v", ("v", ("as", ["a", "b"])))], member="RedistributeNotification"))
    write("bus_values", "lists", message("sasasiu", ["FAKE0", ["1", "2"], ["#"], -1, 3],
                                         member="StartScriptNodeForResource"))
    write("bus_values", "path", message("ossi", ["/org/example/Client", "app", "vendor", 2],
                                         member="RegisterApplication"))
    write("bus_values", "numbers", message("ynqxtdg", [1, -2, 3, -4, 5, 0.5, "a{sv}"]))
    write("bus_values", "no-args", message("", [], member="Resources"))


if __name__ == "__main__":
    line_monitor_seeds()
    bus_seeds()
