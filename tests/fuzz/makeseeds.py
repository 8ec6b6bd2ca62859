#!/usr/bin/env python3
"""Writes the seeds of the fuzz targets, fuzz/corpus/TARGET/seed-*, from the examples in the documents."""

import pathlib
import re
import struct

ROOT = pathlib.Path(__file__).resolve().parents[2]
CORPUS = ROOT / "tests" / "fuzz" / "corpus"
EXAMPLE = re.compile(r"<!-- example: (\S+) -->\n```\n(.*?)```", re.DOTALL)

COUNTS_AND_TAIL_SIZE = 4 + 4 + 2 + 4  # numbers of nodes and connections, capture record, trailer
TAIL_SIZE = 2 + 4
PROMISCUOUS_SIZE = 4  # the end of a node record; not in version 0
NODE_ID = slice(8, 16)
NODE_POSITION = slice(16, 32)
NODE_ADDRESS_END = 42
NODE_FLAGS = slice(42, 46)
CONNECTION_ENDS = slice(4, 20)
CONNECTION_BROKEN = slice(20, 21)
CONNECTION_RELIABILITIES = slice(21, 37)  # of a bit and of the error detection
CHECKED = struct.pack(">i", 2)

# Bits of the first byte, as the targets define them
BY_NAME, PLUG_AND_PLAY, SHORT_ADDRESS, SECOND_PROGRAM = 0x01, 0x02, 0x04, 0x08
ENDS, GONE, STOPPED_SERVER, DELETED_NODE = 0x10, 0x20, 0x40, 0x80
CONFIRMATIONS, PROMISCUOUS, NOISY, BROKEN, FURTHER_LINKS = 0x01, 0x02, 0x04, 0x08, 0x10
SHORT_ADDRESSES, NO_ADDRESS, CLOSES = 0x20, 0x40, 0x80


def examples():
    text = "".join((ROOT / "docs" / name).read_text(encoding="utf-8") for name in ("protocol.md", "files.md"))
    return {name: bytes.fromhex(re.sub("#.*", "", block)) for name, block in EXAMPLE.findall(text)}


def replaced(content, place, value):
    return content[: place.start] + value + content[place.stop :]


def node(known, number, flags=0):
    """The node of the example under another id, at another place and with another address."""
    record = replaced(known["node-record"], NODE_ID, struct.pack(">Q", number))
    record = replaced(record, NODE_POSITION, struct.pack(">dd", 100 * number, 60 * number))
    record = replaced(record, slice(NODE_ADDRESS_END - 1, NODE_ADDRESS_END), bytes([number]))
    return replaced(record, NODE_FLAGS, struct.pack(">I", flags))


def connection(known, first, second, is_broken=False):
    record = replaced(known["connection-record"], CONNECTION_ENDS, struct.pack(">QQ", first, second))
    return replaced(record, CONNECTION_BROKEN, bytes([is_broken]))


def simulation(empty, nodes, connections):
    head, tail = empty[:-COUNTS_AND_TAIL_SIZE], empty[-TAIL_SIZE:]
    count = struct.Struct(">I").pack
    return head + count(len(nodes)) + b"".join(nodes) + count(len(connections)) + b"".join(connections) + tail


def simulation_files(known):
    new, old = known["new-simulation"], known["new-simulation-version-0"]
    nodes = [node(known, number) for number in (1, 2, 3)]
    old_nodes = [record[:-PROMISCUOUS_SIZE] for record in nodes]
    promiscuous_nodes = [record[:-PROMISCUOUS_SIZE] + CHECKED for record in nodes]
    chain = [connection(known, 1, 2), connection(known, 2, 3)]
    # Every frame is changed; on one link the receiver notices, on the other it does not.
    noisy_chain = [
        replaced(link, CONNECTION_RELIABILITIES, struct.pack(">dd", 0.9, detection))
        for link, detection in zip(chain, (1, 0))
    ]
    return {
        "new": new,
        "new-version-0": old,
        "example": (ROOT / "examples" / "lossy-link.ltvo").read_bytes(),
        "one-node": simulation(new, nodes[:1], []),
        "chain": simulation(new, nodes, chain),
        "chain-version-0": simulation(old, old_nodes, chain),
        "promiscuous": simulation(new, promiscuous_nodes, chain),
        "noisy": simulation(new, nodes, noisy_chain),
        "odd-links": simulation(
            new, [node(known, 1), node(known, 2, flags=2)], [connection(known, 1, 1), connection(known, 2, 1, True)]
        ),
    }


def in_pieces(choices, *pieces):
    """A byte of choices, the number of cuts, the length of each piece but the last, the pieces."""
    return bytes([choices, len(pieces) - 1]) + bytes(map(len, pieces[:-1])) + b"".join(pieces)


def identifications(known):
    by_address, by_name = known["identify-address"], known["identify-name"]
    left = by_name.replace(b"Right", b"Left").replace(b"\x06", b"\x05", 1)
    frame = known["frame-from-program"]
    return {
        "known-address": in_pieces(0, by_address),
        "known-address-and-frame": in_pieces(ENDS, by_address + frame),
        "two-programs": in_pieces(SECOND_PROGRAM, by_address, frame),
        "deleted-node": in_pieces(DELETED_NODE, by_address, frame),
        "stopped-server": in_pieces(STOPPED_SERVER, by_address),
        "gone": in_pieces(GONE, by_address),
        "silent": in_pieces(SECOND_PROGRAM, b""),
        "new-address": in_pieces(PLUG_AND_PLAY, by_address[:-1] + b"\x09" + frame),
        "short-address": in_pieces(SHORT_ADDRESS, b"\x03\x00\x00\x00\x02\x01\x01"),
        "unknown-name": in_pieces(BY_NAME, by_name),
        "new-name": in_pieces(BY_NAME | PLUG_AND_PLAY, by_name, frame),
        "known-name": in_pieces(BY_NAME | SECOND_PROGRAM, left, frame, frame),
        "wrong-kind": in_pieces(BY_NAME, by_address),
        "late-rest": in_pieces(PLUG_AND_PLAY, by_address[:5], by_address[5:]),
    }


def bridge_messages(known):
    frame = known["frame-from-program"]
    broadcast = frame[:5] + b"\xff" * 6 + frame[11:]
    to_nobody = frame[:5] + b"\xee" * 6 + frame[11:]
    to_sender = frame[:5] + frame[11:17] + frame[11:]
    short_frame = b"\x01\x00\x00\x00\x04\x02\x01AB"
    control = [known[f"control-{kind}"] for kind in ("address", "deactivate", "activate", "color", "name")]
    return {
        "frame": in_pieces(0, frame),
        "frames": in_pieces(CONFIRMATIONS, frame + broadcast, to_nobody, frame + frame),
        "promiscuous": in_pieces(CONFIRMATIONS | PROMISCUOUS, to_nobody, frame),
        "noisy": in_pieces(CONFIRMATIONS | NOISY | PROMISCUOUS, to_nobody * 4),
        "broken": in_pieces(CONFIRMATIONS | BROKEN, frame + broadcast),
        "links": in_pieces(CONFIRMATIONS | FURTHER_LINKS, frame, broadcast, to_sender),
        "short-addresses": in_pieces(CONFIRMATIONS | SHORT_ADDRESSES, short_frame),
        "control": in_pieces(0, *control, frame),
        "switched-off": in_pieces(CONFIRMATIONS, known["control-deactivate"] + frame),
        "first-address": in_pieces(NO_ADDRESS, control[0]),
        "dropped": in_pieces(0, known["dropped-message"] + frame),
        "closing": in_pieces(0, frame + known["closing-message"] + frame),
        "late-rest": in_pieces(0, frame[:7], frame[7:]),
        "gone": in_pieces(CLOSES, frame, frame),
    }


def write(target, seeds):
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (folder / f"seed-{name}").write_bytes(content)


def main():
    known = examples()
    write("simulationfile", simulation_files(known))
    write("identification", identifications(known))
    write("bridge", bridge_messages(known))


if __name__ == "__main__":
    main()
