"""Writes the seeds of the fuzz targets, fuzz/corpus/TARGET/seed-*, from the examples in the documents."""

from __future__ import annotations

import re
from typing import Any

from measuring.lab import makesimulation
from measuring.lab.launcher import TOP_FOLDER
from measuring.lab.makesimulation import CHECKED, LinkSettings, NodeSettings, Simulation

CORPUS = TOP_FOLDER / "tests" / "fuzz" / "corpus"
EXAMPLE = re.compile(r"<!-- example: (\S+) -->\n```\n(.*?)```", re.DOTALL)
DELAY = 1000  # ms: the target looks at frames in flight
Examples = dict[str, bytes]  # by name

# Bits of the first byte, as the targets define them
BY_NAME, PLUG_AND_PLAY, SHORT_ADDRESS, SECOND_PROGRAM = 0x01, 0x02, 0x04, 0x08
ENDS, GONE, STOPPED_SERVER, DELETED_NODE = 0x10, 0x20, 0x40, 0x80
CONFIRMATIONS, PROMISCUOUS, NOISY, BROKEN, FURTHER_LINKS = 0x01, 0x02, 0x04, 0x08, 0x10
SHORT_ADDRESSES, NO_ADDRESS, CLOSES = 0x20, 0x40, 0x80


def examples() -> Examples:
    text = "".join((TOP_FOLDER / "docs" / name).read_text(encoding="utf-8") for name in ("protocol.md", "files.md"))
    return {name: bytes.fromhex(re.sub("#.*", "", block)) for name, block in EXAMPLE.findall(text)}


def simulation_files(known: Examples) -> Examples:
    def file(*wiring: tuple[int, int], **settings: Any) -> bytes:
        simulation = Simulation(wiring=wiring, confirms=True, delay=DELAY, **settings)
        content: bytes = makesimulation.simulation_file(simulation)
        return content

    chain = (0, 1), (1, 2)
    promiscuous = {node: NodeSettings(promiscuous=CHECKED) for node in range(3)}
    # Every frame is changed; on one link the receiver notices, on the other it does not.
    noisy = {link: LinkSettings(reliability=0.9, detection=1 - link) for link in range(2)}
    return {
        "new": known["new-simulation"],
        "new-version-0": known["new-simulation-version-0"],
        "example": (TOP_FOLDER / "examples" / "lossy-link.ltvo").read_bytes(),
        "one-node": file(single_nodes=1),
        "chain": file(*chain),
        "promiscuous": file(*chain, own_nodes=promiscuous),
        "noisy": file(*chain, own_links=noisy),
        "odd-links": file((0, 0), (1, 0), own_links={1: LinkSettings(broken=True)}),
    }


def in_pieces(choices: int, *pieces: bytes) -> bytes:
    """Return a byte of choices, the number of cuts, the length of each piece but the last, the pieces."""
    return bytes([choices, len(pieces) - 1]) + bytes(map(len, pieces[:-1])) + b"".join(pieces)


def identifications(known: Examples) -> Examples:
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


def bridge_messages(known: Examples) -> Examples:
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


def write(target: str, seeds: Examples) -> None:
    folder = CORPUS / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, content in seeds.items():
        (folder / f"seed-{name}").write_bytes(content)


def main() -> None:
    known = examples()
    write("simulationfile", simulation_files(known))
    write("identification", identifications(known))
    write("bridge", bridge_messages(known))


if __name__ == "__main__":
    main()
