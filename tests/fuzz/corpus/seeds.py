#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets, one directory per target, from the byte layouts
the test suites use. Inputs that a run finds and merges (named by their hash) are kept beside them.
Run from anywhere: python3 tests/fuzz/corpus/seeds.py"""
import pathlib
import struct

here = pathlib.Path(__file__).resolve().parent
S16LE_48K_STEREO = bytes.fromhex("80BB00000202")


def sequence_info(number, fourcc=b"PCMA", header=S16LE_48K_STEREO):
    return bytes([1, 0]) + struct.pack("<H", number) + fourcc + header


def frame(number, timestamp, duration=None, media=b"\x0a\x0b\x0c\x0d"):
    return bytes([2, 0]) + struct.pack("<HQQ", number, timestamp, 10_000_000 + timestamp
                                       if duration is None else duration) + media


def packets(*each):
    """Each packet behind the byte that gives its length less 5 (see packets() in Fuzzing.h)."""
    return b"".join(bytes([len(p) - 5]) + p for p in each)


streams = {
    # The receiver suite's filter cases, main channel.
    "selects-its-sequence": packets(sequence_info(5), frame(5, 1), sequence_info(5), frame(4, 2), frame(5, 4)),
    "frames-before-any-sequence": packets(frame(0, 1), frame(3, 2)),
    "late-packets-from-before-a-wrap": packets(sequence_info(3), frame(65530, 1), sequence_info(15),
                                               frame(65530, 2)),
    "sequence-from-before-a-wrap": packets(sequence_info(65525)),
    "wrapped-number-too-old": packets(sequence_info(20), sequence_info(65535), sequence_info(1)),
    "alien-fourcc": packets(sequence_info(7, b"ABCD"), frame(7, 1)),
    "refused-header": packets(sequence_info(4, header=bytes(6))),
    "short-frame": packets(sequence_info(1), frame(1, 1)[:15]),
    "unknown-type-marker": packets(bytes([9, 0, 0, 0, 0])),
    # The depayloader list suite's layouts: short and refused headers, cut packets, odd FourCCs.
    "headers-short-and-refused": packets(sequence_info(1, header=bytes.fromhex("80BB00000203")),
                                         sequence_info(6, header=b""),
                                         sequence_info(5, header=bytes.fromhex("225600000003")),
                                         frame(5, 0x0102030405060708, 0xA0B0C0D0E0F00010, b"cd"),
                                         b"\x01\x00\x02\x03PCM"),
    "cut-frames": packets(sequence_info(4), frame(4, 0x1111, 0x2222, b"")[:11],
                          frame(4, 0x1111, 0x2222, b"")[:12], frame(4, 0x1111, 0x2222, b""),
                          b"\x00\x00\x22\x11\x01", b"\x03\x00\x22\x11\x01"),
    "fourcc-below-32": packets(sequence_info(2, struct.pack("<I", 0x1F7E4D41), b""), frame(7, 1, 2, b"xyz")),
}
codec_headers = {
    "48k-stereo-s16le": S16LE_48K_STEREO,
    "44k1-44ch-f32le": bytes.fromhex("44AC00002C0A"),
    "rate-0": bytes.fromhex("000000000203"),
    "rate-only": bytes.fromhex("80BB0000"),
    "no-format": bytes.fromhex("80BB000002"),
    "format-12": bytes.fromhex("80BB0000020C"),
    "no-channels": bytes.fromhex("80BB00000002"),
    "longer": S16LE_48K_STEREO + b"more",
}
# Greeting piece size, then per message: piece size, codec header length (see the target).
sidechannel = {
    "bytewise": bytes([0, 0, 0]),
    "three-messages": bytes([3, 4, 0, 7, 1, 200, 2]),
    "beyond-64k": bytes([31, 40, 255, 0, 181]),
}

for target, inputs in {"consume_packet": streams, "receiver_packets": streams,
                       "codec_header": codec_headers, "sidechannel_chunks": sidechannel}.items():
    (here / target).mkdir(exist_ok=True)
    for name, data in inputs.items():
        (here / target / name).write_bytes(data)
