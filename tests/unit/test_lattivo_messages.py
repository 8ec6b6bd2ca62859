"""Tests of the kit in Python: its codes, and the bytes of its messages."""

from __future__ import annotations

import array
import re
import unittest
from pathlib import Path
from typing import Dict, List

import lattivo
from lattivo import codes, messages

TOP_FOLDER = Path(__file__).resolve().parents[2]
KIT_IN_C = TOP_FOLDER / "client" / "c"

LEFT = bytes.fromhex("020000000001")
RIGHT = bytes.fromhex("020000000002")


def documented_examples() -> Dict[str, bytes]:
    """Return the worked examples of the documents by name."""
    text = "".join(path.read_text(encoding="utf-8") for path in sorted((TOP_FOLDER / "docs").glob("*.md")))
    blocks = re.findall(r"<!-- example: (\S+) -->\n```\n(.*?)```", text, re.DOTALL)
    return {name: bytes.fromhex(" ".join(line.split("#")[0] for line in block.splitlines())) for name, block in blocks}


def decode(data: bytes, largest_frame: int = 64) -> List[lattivo.Message]:
    """Return the messages of these bytes."""
    return feed(messages.Decoder(largest_frame), data)


def feed(decoder: messages.Decoder, data: bytes) -> List[lattivo.Message]:
    """Give bytes to a decoder as a socket does, and return the messages that it has then."""
    decoder.room()[: len(data)] = data
    decoder.add(len(data))
    return decoder.take_messages()


class TestCodes(unittest.TestCase):
    """The numbers, against those of the kit in C."""

    def assert_as_in_c(self, header: str, prefix: str, numbers: Dict[str, int]) -> None:
        """Compare the numbers with all that a header of the kit in C has with this prefix."""
        path = KIT_IN_C / header
        if not path.exists():
            self.skipTest("the kit in C is not here")
        text = re.sub(r"/\*.*?\*/", "", path.read_text(encoding="utf-8"), flags=re.DOTALL)
        found = {name: int(number, 0) for name, number in re.findall(rf"\b{prefix}(\w+) = (\w+)", text)}
        self.assertTrue(found)
        self.assertEqual(numbers, found)

    def test_the_codes_of_the_protocol_are_those_of_the_kit_in_c(self) -> None:
        colors = {"COLOUR" if control.name == "COLOR" else control.name: control for control in lattivo.NodeControl}
        lists = {
            "LATTIVO_MESSAGE_": {code.name: code.value for code in lattivo.MessageType},
            "LATTIVO_CONTROL_": {name: code.value for name, code in colors.items()},
            "LATTIVO_COMMAND_": {code.name: code.value for code in lattivo.Command},
            "LATTIVO_(?=DELIVERED|LOST)": {code.name: code.value for code in lattivo.Outcome},
            "LATTIVO_(?=HEADER)": {"HEADER_SIZE": codes.HEADER.size},
            "LATTIVO_(?=DEFAULT_PORT)": {"DEFAULT_PORT": lattivo.DEFAULT_PORT},
        }
        for prefix, numbers in lists.items():
            with self.subTest(prefix):
                self.assert_as_in_c("lattivo_protocol.h", prefix, numbers)

    def test_the_codes_of_failures_are_those_of_the_kit_in_c(self) -> None:
        path = KIT_IN_C / "lattivo.h"
        if not path.exists():
            self.skipTest("the kit in C is not here")
        (listed,) = re.findall(r"typedef enum lattivo_result \{(.*?)\}", path.read_text(encoding="utf-8"), re.DOTALL)
        names = re.findall(r"LATTIVO_(\w+)", re.sub(r"/\*.*?\*/", "", listed, flags=re.DOTALL))
        codes_in_c = {name: number for number, name in enumerate(names)}
        for only_in_c in ("OK", "OUT_OF_MEMORY", "SYSTEM_ERROR"):
            del codes_in_c[only_in_c]
        self.assertEqual({code.name: code.value for code in lattivo.ErrorCode}, codes_in_c)


class TestEncoding(unittest.TestCase):
    """Messages from the program to the simulator, against the documented bytes."""

    def test_every_message_has_the_documented_bytes(self) -> None:
        encoded = {
            "identify-address": messages.encode_identification(None, LEFT),
            "identify-name": messages.encode_identification("Right", None),
            "frame-from-program": messages.encode_frame(RIGHT + LEFT + b"AB"),
            "dropped-message": messages.encode_message(lattivo.MessageType.DISCARDED, b"\xab\xcd"),
            "closing-message": messages.encode_message(lattivo.MessageType.CLOSE, b""),
            "control-address": messages.encode_address(bytes.fromhex("020000000003")),
            "control-activate": messages.encode_activation(True),
            "control-deactivate": messages.encode_activation(False),
            "control-color": messages.encode_color(64, 128, 32),
            "control-name": messages.encode_name("Left"),
        }
        documented = documented_examples()
        for name, message in encoded.items():
            with self.subTest(name):
                self.assertEqual(message, documented[name])

    def test_the_length_of_a_frame_counts_bytes_whatever_its_items_are(self) -> None:
        payload = memoryview(array.array("H", [1, 2, 3]))
        self.assertEqual(messages.encode_frame(payload), bytes.fromhex("01 00000006") + payload.tobytes())

    def test_the_length_of_a_name_counts_utf8_bytes_and_the_subtype(self) -> None:
        self.assertEqual(messages.encode_name("é"), bytes.fromhex("03 00000003 05 C3A9"))

    def test_an_empty_name_leaves_the_subtype_alone(self) -> None:
        self.assertEqual(messages.encode_name(""), bytes.fromhex("03 00000001 05"))

    def test_a_name_with_a_zero_byte_is_refused(self) -> None:
        with self.assertRaises(lattivo.WrongUse):
            messages.encode_name("Le\0ft")

    def test_what_is_not_bytes_is_no_frame_and_no_address(self) -> None:
        for encode, what in ((messages.encode_frame, "a frame"), (messages.encode_address, "an address")):
            with self.subTest(what), self.assertRaisesRegex(lattivo.WrongUse, f"{what} is made of bytes, not str"):
                encode("020000000001")

    def test_bytes_are_no_name(self) -> None:
        with self.assertRaisesRegex(lattivo.WrongUse, "a name is text, not bytes"):
            messages.encode_name(b"Left")

    def test_a_colour_out_of_range_is_refused(self) -> None:
        for part in (-1, 256):
            with self.subTest(part), self.assertRaisesRegex(lattivo.WrongUse, f"not {part}"):
                messages.encode_color(0, part, 0)

    def test_a_program_identifies_by_name_or_by_address(self) -> None:
        for name, address in ((None, None), ("Left", LEFT)):
            with self.subTest(name=name), self.assertRaises(lattivo.WrongUse):
                messages.encode_identification(name, address)


class TestDecoder(unittest.TestCase):
    """Messages from the simulator to the program."""

    DELIVERED = lattivo.Confirmation(lattivo.Outcome.DELIVERED)
    LOST = lattivo.Confirmation(lattivo.Outcome.LOST)
    STEP = lattivo.DebugCommand(lattivo.Command.STEP)
    FRAME = lattivo.Frame(RIGHT + LEFT + b"AB")

    def test_the_documented_messages_are_understood(self) -> None:
        expected = {
            "frame-to-program": self.FRAME,
            "confirmation-delivered": self.DELIVERED,
            "confirmation-lost": self.LOST,
            "debug-command-step": self.STEP,
        }
        documented = documented_examples()
        for name, message in expected.items():
            with self.subTest(name):
                self.assertEqual(decode(documented[name]), [message])

    def test_a_stream_cut_anywhere_gives_the_same_messages(self) -> None:
        documented = documented_examples()
        names = ("frame-to-program", "confirmation-lost", "debug-command-step", "confirmation-delivered")
        stream = b"".join(documented[name] for name in names)
        for cut in range(len(stream) + 1):
            with self.subTest(cut=cut):
                decoder = messages.Decoder(64)
                self.assertEqual(
                    feed(decoder, stream[:cut]) + feed(decoder, stream[cut:]),
                    [self.FRAME, self.LOST, self.STEP, self.DELIVERED],
                )

    def test_a_message_is_out_with_its_last_byte_and_not_before(self) -> None:
        decoder = messages.Decoder(64)
        self.assertEqual(feed(decoder, bytes.fromhex("02 00000001")), [])
        self.assertFalse(decoder.has_message)
        decoder.room()[:1] = b"\x02"
        decoder.add(1)
        self.assertTrue(decoder.has_message)
        self.assertEqual(decoder.next_message(), self.LOST)
        self.assertFalse(decoder.has_message)

    def test_a_null_frame_is_an_empty_one(self) -> None:
        self.assertEqual(decode(bytes.fromhex("01 FFFFFFFF 02 00000001 01")), [lattivo.Frame(b""), self.DELIVERED])

    def test_what_is_no_message_is_refused(self) -> None:
        for text in (
            "00 00000000",
            "03 00000001 02",
            "02 00000001 00",
            "02 00000002 0101",
            "02 FFFFFFFF",
            "05 00000001 07",
            "FF FFFFFFFE",
        ):
            with self.subTest(text), self.assertRaises(lattivo.ProtocolError):
                decode(bytes.fromhex(text))

    def test_a_frame_of_the_largest_size_is_taken(self) -> None:
        self.assertEqual(decode(bytes.fromhex("01 00000040") + bytes(64)), [lattivo.Frame(bytes(64))])

    def test_a_frame_one_byte_larger_is_refused_with_its_header(self) -> None:
        with self.assertRaises(lattivo.ReceivedFrameTooLarge) as caught:
            decode(bytes.fromhex("01 00000041"))
        self.assertEqual(caught.exception.limit, 64)
        self.assertIn("65 bytes", str(caught.exception))

    def test_messages_before_a_wrong_one_are_given_first(self) -> None:
        decoder = messages.Decoder(64)
        self.assertEqual(feed(decoder, bytes.fromhex("02 00000001 01 00 00000000")), [self.DELIVERED])
        self.assertTrue(decoder.has_message)
        for _ in range(2):  # there is no way past it
            with self.assertRaises(lattivo.ProtocolError):
                decoder.next_message()

    def test_the_buffer_never_grows(self) -> None:
        decoder = messages.Decoder(1000)
        message = messages.encode_frame(bytes(1000))
        stream = memoryview(message * 1000)
        capacity = len(decoder.room())
        taken = 0
        while stream:
            room = decoder.room()
            self.assertLessEqual(len(room), capacity)
            self.assertGreaterEqual(len(room), messages.READ_SIZE)
            count = min(len(room), 30011, len(stream))
            room[:count] = stream[:count]
            stream = stream[count:]
            decoder.add(count)
            taken += len(decoder.take_messages())
        self.assertEqual(taken, 1000)

    def test_a_largest_frame_without_bytes_is_refused(self) -> None:
        with self.assertRaises(lattivo.WrongUse):
            messages.Decoder(0)


if __name__ == "__main__":
    unittest.main()
