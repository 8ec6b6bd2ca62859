"""Tests of the blocking client, against a peer that the test plays."""

from __future__ import annotations

import errno
import multiprocessing
import select
import socket
import struct
import threading
import time
import unittest
from typing import Callable, Iterator
from unittest import mock

import lattivo
from lattivo import channel, messages
from lattivo.client import CLOSE_TIMEOUT
from tests.support.scriptedpeer import PATIENCE, Listener, read_exactly

LEFT = bytes.fromhex("020000000001")
DELIVERED = bytes.fromhex("02 00000001 01")
IDENTIFICATION_SIZE = 12  # bytes, by address
TINY = 0.05  # seconds
WRONG_OPENINGS = (
    {"address": None},
    {"port": 0},
    {"port": 65536 + 8844},
    {"timeout": float("inf")},
    {"timeout": float("nan")},
    {"name": "Left", "address": None, "attach_pause": -1.0},
    {"name": "Left", "address": None, "attach_pause": 3e6},
    {"name": "\udcff", "address": None},
)


def in_background(test: unittest.TestCase, work: Callable[[], object]) -> threading.Thread:
    """Run this in a thread that ends before the test."""
    thread = threading.Thread(target=work)
    thread.start()
    test.addCleanup(thread.join, PATIENCE)
    return thread


def silent_server(test: unittest.TestCase, host: str = "127.0.0.2", port: int = 0) -> socket.socket:
    """Return a server that answers no connection until the test ends: its queue of one is full."""
    server = socket.create_server((host, port), backlog=0)
    test.addCleanup(server.close)
    test.addCleanup(socket.create_connection(server.getsockname()).close)
    test.assertTrue(select.select([server], [], [], PATIENCE)[0])
    return server


def tear_next_call(client: lattivo.Client | lattivo.aio.Client) -> None:
    """Let the kernel take only three bytes of the next call, as when memory is short."""
    whole = client._channel._socket

    class Torn:
        def __getattr__(self, name: str) -> object:
            return getattr(whole, name)

        def send(self, data: bytes, flags: int) -> int:
            client._channel._socket = whole
            return whole.send(data[:3], flags)

    client._channel._socket = Torn()


class ClientTest(unittest.TestCase):
    """A client that has identified itself by address, and its peer."""

    def setUp(self) -> None:
        self.listener = self.enterContext(Listener())
        self.client, self.peer = self.connect()

    def connect(self, **options: object) -> tuple[lattivo.Client, socket.socket]:
        """Return a client and its peer, which has read the identification."""
        client = lattivo.Client.connect(port=self.listener.port, address=LEFT, **options)
        self.addCleanup(client.close, 0.0)
        peer = self.listener.accept()
        self.addCleanup(peer.close)
        self.assertEqual(read_exactly(peer, IDENTIFICATION_SIZE), messages.encode_address(LEFT))
        return client, peer

    def connect_with_little_room(self) -> None:
        """Connect to a peer that promises little room and, since it counts it in bytes, never more than it has."""
        self.listener.server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32768)
        self.client, self.peer = self.connect()

    def fill_path(self, client: lattivo.Client) -> int:
        """Send frames that the peer does not read, until there is no room for more; return how many."""
        count = 0
        with self.assertRaises(lattivo.Timeout):
            while True:
                client.send_frame(bytes(1000), 4 * TINY)
                count += 1
        return count


class TestConnect(unittest.TestCase):
    """Connecting and identifying."""

    def setUp(self) -> None:
        self.listener = self.enterContext(Listener())

    def test_nobody_there_is_an_error_that_names_the_place(self) -> None:
        port = self.listener.port
        self.listener.server.close()
        with self.assertRaisesRegex(lattivo.ConnectError, rf"127\.0\.0\.1 port {port}: Connection refused") as caught:
            lattivo.Client.connect(port=port, address=LEFT)
        self.assertEqual(caught.exception.code, lattivo.ErrorCode.NO_CONNECTION)

    def test_a_host_without_address_is_an_error_of_its_own(self) -> None:
        with self.assertRaisesRegex(lattivo.UnknownHost, "no.such.host.invalid"):
            lattivo.Client.connect("no.such.host.invalid", address=LEFT)

    def look_up_as(self, *addresses: tuple[int, str]) -> None:
        """Let every host have these addresses, each with its family, and the listener's port."""
        infos = [(family, socket.SOCK_STREAM, 0, "", (host, self.listener.port)) for family, host in addresses]
        patch = mock.patch.object(socket, "getaddrinfo", return_value=infos)
        patch.start()
        self.addCleanup(patch.stop)

    def test_an_address_of_an_unknown_family_is_passed_over(self) -> None:
        self.look_up_as((255, "unknown"), (socket.AF_INET, "127.0.0.1"))
        lattivo.Client.connect("two.example", self.listener.port, address=LEFT).close(0.0)

    def test_a_silent_address_leaves_time_for_the_next(self) -> None:
        silent_server(self, "127.0.0.2", self.listener.port)
        self.look_up_as((socket.AF_INET, "127.0.0.2"), (socket.AF_INET, "127.0.0.1"))
        lattivo.Client.connect("two.example", self.listener.port, address=LEFT, timeout=1.0).close(0.0)

    def test_a_socket_that_the_system_refuses_is_no_connection(self) -> None:
        failure = OSError(errno.EMFILE, "Too many open files")
        with mock.patch.object(socket, "socket", side_effect=failure):
            with self.assertRaisesRegex(lattivo.ConnectError, "Too many open files"):
                lattivo.Client.connect(port=self.listener.port, address=LEFT)

    def test_a_wrong_argument_is_an_error_before_anything_happens(self) -> None:
        for wrong in (*WRONG_OPENINGS, {"largest_frame": 0}):
            with self.subTest(wrong), self.assertRaises(lattivo.WrongUse):
                lattivo.Client.connect(**{"port": self.listener.port, "address": LEFT, **wrong})
        self.assertFalse(select.select([self.listener.server], [], [], 0)[0])

    def connect_by_name(self, **options: object) -> None:
        """Connect in the background, and note the client or the error."""

        def connect() -> None:
            try:
                self.client = lattivo.Client.connect(port=self.listener.port, name="Left", timeout=PATIENCE, **options)
                self.addCleanup(self.client.close, 0.0)
            except lattivo.LattivoError as error:
                self.error = error

        self.connecting = in_background(self, connect)
        self.peer = self.listener.accept()
        self.addCleanup(self.peer.close)
        self.assertEqual(read_exactly(self.peer, 10), messages.encode_name("Left"))

    def refuse_knock(self) -> None:
        """Do what the simulator does with a connection that identifies as nothing."""
        with self.listener.accept() as knock:
            self.assertEqual(read_exactly(knock, 5), bytes.fromhex("07 00000000"))
            self.assertTrue(self.connecting.is_alive())

    def refuse_knocks(self) -> None:
        """Refuse those that come until the client is connected, if any."""
        while self.connecting.is_alive():
            if select.select([self.listener.server], [], [], TINY)[0]:
                self.listener.accept().close()

    def test_behind_a_name_two_further_connections_must_have_ended(self) -> None:
        self.connect_by_name()
        self.refuse_knock()
        self.refuse_knock()
        self.connecting.join(PATIENCE)
        self.client.send_frame(b"first")
        self.assertEqual(read_exactly(self.peer, 10), bytes.fromhex("01 00000005") + b"first")

    def test_a_message_tells_that_the_name_has_been_read(self) -> None:
        self.connect_by_name()
        self.peer.sendall(DELIVERED)
        self.refuse_knocks()
        self.assertEqual(self.client.receive(0), lattivo.Confirmation(lattivo.Outcome.DELIVERED))

    def test_a_refused_name_is_an_error_of_its_own(self) -> None:
        self.connect_by_name()
        self.peer.close()
        self.refuse_knocks()
        self.assertIsInstance(self.error, lattivo.Refused)
        self.assertEqual(
            str(self.error),
            f'the simulator at 127.0.0.1 port {self.listener.port} has refused the name "Left"; '
            "perhaps it identifies programs by address",
        )

    def test_a_name_that_is_refused_by_a_reset_is_refused_too(self) -> None:
        """Reset the connection between the client's last look at it and its first knock."""
        read = channel.Channel.read

        def read_and_reset(reader: channel.Channel) -> bool:
            self.assertFalse(read(reader))
            with self.listener.accept() as peer:
                peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self.listener.server.close()
            reset.stop()
            return False

        reset = mock.patch.object(channel.Channel, "read", read_and_reset)
        reset.start()
        self.addCleanup(mock.patch.stopall)
        with self.assertRaises(lattivo.Refused):
            lattivo.Client.connect(port=self.listener.port, name="Left", timeout=PATIENCE)

    def test_a_server_that_is_switched_off_has_refused_the_name(self) -> None:
        self.connect_by_name()
        self.listener.server.close()
        self.peer.close()
        self.connecting.join(PATIENCE)
        self.assertIsInstance(self.error, lattivo.ConnectError)

    def test_a_pause_takes_the_place_of_the_further_connections(self) -> None:
        started = time.monotonic()
        self.connect_by_name(attach_pause=0.2)
        self.connecting.join(PATIENCE)
        self.assertGreaterEqual(time.monotonic() - started, 0.2)
        self.assertTrue(self.client.try_send(b"x"))
        self.listener.server.setblocking(False)
        with self.assertRaises(BlockingIOError):
            self.listener.server.accept()

    def test_a_simulator_that_never_reads_the_name_is_given_up(self) -> None:
        with self.assertRaisesRegex(lattivo.ConnectError, "has not answered for 0.2 s"):
            lattivo.Client.connect(port=self.listener.port, name="Left", timeout=0.2)

    def test_a_simulator_that_leaves_the_second_knock_unanswered_is_given_up(self) -> None:
        def answer_one_knock() -> None:
            self.addCleanup(self.listener.accept().close)
            self.listener.accept().close()

        in_background(self, answer_one_knock)
        with self.assertRaisesRegex(lattivo.ConnectError, "has not answered for 0.5 s"):
            lattivo.Client.connect(port=self.listener.port, name="Left", timeout=0.5)

    def test_a_host_that_does_not_answer_has_refused_nothing(self) -> None:
        host, port = silent_server(self).getsockname()
        with self.assertRaisesRegex(lattivo.ConnectError, "has not answered for 0.2 s") as caught:
            lattivo.Client.connect(host, port, name="Left", timeout=0.2)
        self.assertEqual(caught.exception.code, lattivo.ErrorCode.NO_CONNECTION)

    def test_a_pause_that_outlasts_the_timeout_does_not_attach(self) -> None:
        with self.assertRaisesRegex(lattivo.ConnectError, "has not answered for 0.2 s"):
            lattivo.Client.connect(port=self.listener.port, name="Left", timeout=0.2, attach_pause=PATIENCE)

    def test_a_failure_leaves_no_socket_open(self) -> None:
        with self.assertRaises(lattivo.ConnectError):
            lattivo.Client.connect(port=self.listener.port, name="Left", timeout=0.2)
        with self.listener.accept() as peer:
            self.assertEqual(len(read_exactly(peer, 11)), 10)  # the name, then the end


class TestSending(ClientTest):
    """From the program to the simulator."""

    def test_small_messages_are_not_held_back(self) -> None:
        self.assertNotEqual(self.client._channel._socket.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY), 0)

    def test_every_call_sends_its_message(self) -> None:
        self.client.send_frame(b"frame")
        self.client.set_address(LEFT)
        self.client.set_name("Left")
        self.client.activate()
        self.client.deactivate()
        self.client.set_color(64, 128, 32)
        expected = b"".join(
            [
                messages.encode_frame(b"frame"),
                messages.encode_address(LEFT),
                messages.encode_name("Left"),
                messages.encode_activation(True),
                messages.encode_activation(False),
                messages.encode_color(64, 128, 32),
            ]
        )
        self.assertEqual(read_exactly(self.peer, len(expected)), expected)

    def test_frames_share_calls_but_never_more_than_a_segment(self) -> None:
        sizes = []
        send = self.client._channel._socket.send

        class Socket:
            def __getattr__(self, name: str) -> object:
                return getattr(inner, name)

            def send(self, data: bytes, flags: int) -> int:
                sizes.append(len(data))
                return send(data, flags)

        inner, self.client._channel._socket = self.client._channel._socket, Socket()
        frames = [bytes([number]) * 1000 for number in range(100)]
        receiving = in_background(self, lambda: self.read_frames(frames))
        self.assertEqual(self.client.send_frames(frames), 100)
        receiving.join(PATIENCE)
        self.assertEqual(self.read, b"".join(messages.encode_frame(frame) for frame in frames))
        self.assertLess(len(sizes), 20)
        self.assertTrue(all(size % 1005 == 0 and size <= self.client.largest_sendable_frame for size in sizes), sizes)

    def read_frames(self, frames: list[bytes]) -> None:
        """Read what these frames make."""
        self.read = read_exactly(self.peer, sum(5 + len(frame) for frame in frames))

    def test_the_largest_frame_is_sent_and_one_byte_more_is_refused(self) -> None:
        with self.assertRaises(lattivo.FrameTooLarge) as caught:
            self.client.send_frame(bytes(100_000))
        largest = caught.exception.limit
        self.assertIn(str(largest), str(caught.exception))
        self.assertEqual(largest, self.client.largest_sendable_frame)
        with self.assertRaises(lattivo.FrameTooLarge):
            self.client.send_frame(bytes(largest + 1))
        self.client.send_frame(bytes(largest))
        self.assertEqual(read_exactly(self.peer, 5 + largest), messages.encode_frame(bytes(largest)))
        self.client.send_frame(b"next")
        self.assertEqual(read_exactly(self.peer, 9), messages.encode_frame(b"next"))

    def test_frames_before_one_that_is_too_large_are_sent(self) -> None:
        with self.assertRaises(lattivo.FrameTooLarge):
            self.client.send_frames([b"1", b"2", bytes(100000), b"3"])
        self.assertEqual(read_exactly(self.peer, 12), messages.encode_frame(b"1") + messages.encode_frame(b"2"))

    def test_the_kernel_holds_nothing_that_the_peer_has_no_room_for(self) -> None:
        self.connect_with_little_room()
        count = self.fill_path(self.client)
        self.assertTrue(self.client._channel.has_been_taken())
        size = count * 1005
        self.assertEqual(len(read_exactly(self.peer, size)), size)  # nothing of the frame that found no room

    def test_sending_goes_on_when_there_is_room_again(self) -> None:
        self.connect_with_little_room()
        count = self.fill_path(self.client)
        reading = in_background(self, lambda: read_exactly(self.peer, (count + 1) * 1005))
        self.client.send_frame(bytes(1000), PATIENCE)
        reading.join(PATIENCE)
        self.assertFalse(reading.is_alive())

    def test_a_timeout_tells_how_many_frames_were_sent(self) -> None:
        self.connect_with_little_room()
        with self.assertRaises(lattivo.Timeout) as caught:
            self.client.send_frames((bytes(1000) for _ in range(100_000)), 4 * TINY)
        size = caught.exception.sent * 1005
        self.assertEqual(len(read_exactly(self.peer, size)), size)
        self.client.send_frame(b"next", PATIENCE)
        self.assertEqual(read_exactly(self.peer, 9), messages.encode_frame(b"next"))

    def test_a_timeout_before_a_frame_that_is_too_large_counts_too(self) -> None:
        self.connect_with_little_room()
        self.fill_path(self.client)
        with self.assertRaises(lattivo.Timeout) as caught:
            self.client.send_frames([bytes(1000), bytes(100_000)], TINY)
        self.assertEqual(caught.exception.sent, 0)
        self.assertTrue(self.client.flush())  # nothing waits

    def test_a_timeout_keeps_what_was_queued_before(self) -> None:
        self.connect_with_little_room()
        count = self.fill_path(self.client)
        self.assertTrue(self.client.queue_frame(bytes(1000)))
        with self.assertRaises(lattivo.Timeout):
            self.client.send_frames([bytes(1000)], TINY)
        size = (count + 1) * 1005
        receiving = in_background(self, lambda: self.client.receive(PATIENCE))
        self.assertEqual(len(read_exactly(self.peer, size)), size)
        self.peer.sendall(DELIVERED)
        receiving.join(PATIENCE)

    def test_the_slow_gate_says_that_the_client_has_been_closed(self) -> None:
        client, _ = self.connect(end_of_record=False)
        client.close(0.0)
        with self.assertRaisesRegex(lattivo.Disconnected, "this client has been closed"):
            client.send_frame(b"x")

    def test_a_peer_that_closes_ends_a_sender_that_waits_for_room(self) -> None:
        self.connect_with_little_room()
        self.fill_path(self.client)
        closing = threading.Timer(2 * TINY, self.peer.close)
        closing.start()
        self.addCleanup(closing.join)
        with self.assertRaises(lattivo.Disconnected):
            self.client.send_frame(bytes(1000), PATIENCE)

    def test_the_slow_gate_sends_all_frames_too(self) -> None:
        client, peer = self.connect(end_of_record=False)
        self.assertEqual(client._channel._flags & socket.MSG_EOR, 0)
        frames = [bytes([number % 256]) * 64 for number in range(300)]
        reading = in_background(self, lambda: self.assertEqual(len(read_exactly(peer, 300 * 69)), 300 * 69))
        for frame in frames:
            client.send_frame(frame, PATIENCE)
        reading.join(PATIENCE)

    def test_the_slow_gate_waits_until_the_last_bytes_were_taken(self) -> None:
        client, _ = self.connect(end_of_record=False)
        client._channel.has_been_taken = lambda: False
        with self.assertRaises(lattivo.Timeout):
            client.send_frame(b"x", TINY)
        client._channel.has_been_taken = lambda: True
        client.send_frame(b"x", TINY)

    def test_the_slow_gate_ends_with_the_connection(self) -> None:
        client, peer = self.connect(end_of_record=False)
        with self.assertRaises(BlockingIOError):
            while True:
                client._channel._socket.send(bytes(100_000))  # more than the peer's kernel takes
        peer.close()  # resets, and what was not taken never will be
        with self.assertRaises(lattivo.Disconnected):
            client.send_frame(b"x", PATIENCE)

    def test_a_rest_that_the_kernel_did_not_take_leaves_first(self) -> None:
        tear_next_call(self.client)
        self.assertTrue(self.client.try_send(b"torn"))
        self.assertTrue(self.client.wants_to_write)
        self.client.send_frame(b"next")
        self.assertEqual(read_exactly(self.peer, 18), messages.encode_frame(b"torn") + messages.encode_frame(b"next"))

    def test_a_frame_is_sent_with_the_rest_that_the_kernel_did_not_take(self) -> None:
        tear_next_call(self.client)
        self.client.send_frame(b"torn")
        self.assertEqual(read_exactly(self.peer, 9), messages.encode_frame(b"torn"))


class TestReceiving(ClientTest):
    """From the simulator to the program."""

    def test_nothing_to_read_is_no_message(self) -> None:
        self.assertIsNone(self.client.receive(0))
        self.assertEqual(self.client.receive_messages(0), [])
        self.assertIsNone(self.client.receive(TINY))

    def test_a_timeout_beyond_what_the_system_can_wait_is_wrong(self) -> None:
        self.peer.sendall(DELIVERED)
        for timeout in (3e6, float("inf"), float("nan")):
            with self.subTest(timeout), self.assertRaises(lattivo.WrongUse):
                self.client.receive(timeout)
        self.assertIsNotNone(self.client.receive(PATIENCE))

    def test_messages_come_one_by_one_or_together(self) -> None:
        self.peer.sendall(DELIVERED + messages.encode_frame(b"one") + messages.encode_frame(b"two"))
        self.assertEqual(self.client.receive(PATIENCE), lattivo.Confirmation(lattivo.Outcome.DELIVERED))
        self.assertTrue(self.client.has_more)
        self.assertEqual(self.client.receive_messages(PATIENCE), [lattivo.Frame(b"one"), lattivo.Frame(b"two")])
        self.assertFalse(self.client.has_more)

    def test_a_message_in_pieces_is_waited_for(self) -> None:
        self.peer.sendall(DELIVERED[:3])
        self.assertIsNone(self.client.receive(TINY))
        self.peer.sendall(DELIVERED[3:])
        self.assertIsNotNone(self.client.receive(PATIENCE))

    def test_the_last_messages_are_given_before_the_end(self) -> None:
        self.peer.sendall(2 * DELIVERED)
        self.peer.close()
        self.assertIsNotNone(self.client.receive(PATIENCE))
        self.assertIsNotNone(self.client.receive(PATIENCE))
        with self.assertRaises(lattivo.Disconnected) as caught:
            self.client.receive(PATIENCE)
        self.assertEqual(caught.exception.code, lattivo.ErrorCode.CLOSED)

    def test_the_end_before_any_message_names_the_address_that_may_be_unknown(self) -> None:
        self.peer.close()
        with self.assertRaises(lattivo.Disconnected) as caught:
            self.client.receive(PATIENCE)
        self.assertEqual(
            str(caught.exception),
            f"the simulator at 127.0.0.1 port {self.listener.port} closed the connection; "
            "perhaps it has no node of the address 020000000001, or identifies programs by name",
        )

    def test_the_end_behind_a_message_names_no_address(self) -> None:
        self.peer.sendall(DELIVERED)
        self.peer.close()
        self.client.receive(PATIENCE)
        with self.assertRaisesRegex(lattivo.Disconnected, rf"port {self.listener.port} closed the connection$"):
            self.client.receive(PATIENCE)

    def test_the_iterator_ends_with_the_connection(self) -> None:
        self.peer.sendall(3 * DELIVERED)
        self.peer.close()
        self.assertEqual(len(list(self.client)), 3)

    def test_a_loop_that_breaks_off_leaves_the_other_messages(self) -> None:
        self.peer.sendall(b"".join(messages.encode_frame(b"%d" % number) for number in range(3)))
        first = next(iter(self.client))
        self.assertEqual(
            [first, *self.client.receive_messages(0)], [lattivo.Frame(b"%d" % number) for number in range(3)]
        )

    def test_a_frame_above_the_largest_ends_the_reading(self) -> None:
        client, peer = self.connect(largest_frame=100)
        peer.sendall(messages.encode_frame(bytes(100)) + messages.encode_frame(bytes(101)))
        self.assertEqual(client.receive(PATIENCE), lattivo.Frame(bytes(100)))
        for _ in range(2):
            with self.assertRaises(lattivo.ReceivedFrameTooLarge):
                client.receive(PATIENCE)

    def test_what_is_queued_leaves_while_the_client_waits_for_messages(self) -> None:
        self.assertTrue(self.client.queue_frame(b"asked"))
        answering = in_background(self, self.answer)
        self.assertIsNotNone(self.client.receive(PATIENCE))
        answering.join(PATIENCE)

    def answer(self) -> None:
        """Answer a frame with a confirmation."""
        read_exactly(self.peer, 10)
        self.peer.sendall(DELIVERED)


class TestLoop(ClientTest):
    """A loop of the program's own."""

    def test_queued_frames_leave_together(self) -> None:
        for number in range(3):
            self.assertTrue(self.client.queue_frame(b"%d" % number))
        self.assertTrue(self.client.wants_to_write)
        self.assertFalse(select.select([self.peer], [], [], 0)[0])
        self.assertTrue(self.client.flush())
        self.assertFalse(self.client.wants_to_write)
        self.assertEqual(read_exactly(self.peer, 18)[5::6], b"012")

    def test_a_full_queue_takes_no_more(self) -> None:
        count = 0
        while self.client.queue_frame(b"x"):
            count += 1
        largest_message = self.client.largest_sendable_frame + 5
        self.assertEqual(count, (largest_message - channel.OPTIONS_SIZE) // 6)
        self.assertTrue(self.client.flush())
        self.assertTrue(self.client.queue_frame(b"x"))

    def test_trying_to_send_without_room_says_when_to_flush(self) -> None:
        self.connect_with_little_room()
        self.assertIsNone(self.client.wait_time)
        count = 0
        while self.client.try_send(bytes(1000)):
            count += 1
        self.assertEqual(self.client.wait_time, channel.WINDOW_PAUSE)
        self.assertFalse(self.client.wants_to_write)  # the kernel has room, the peer has not
        self.assertFalse(self.client.flush())
        reading = in_background(self, lambda: read_exactly(self.peer, count * 1005))
        end = time.monotonic() + PATIENCE
        while not self.client.flush() and time.monotonic() < end:
            select.select([self.client], [self.client] if self.client.wants_to_write else [], [], self.client.wait_time)
        reading.join(PATIENCE)
        self.assertFalse(reading.is_alive())
        self.assertIsNone(self.client.wait_time)

    def test_room_that_comes_after_a_refusal_leaves_something_to_wait_for(self) -> None:
        while self.client.queue_frame(b"x"):
            pass
        is_room_for = self.client._channel._is_room_for
        answers = iter([False])
        with mock.patch.object(self.client._channel, "_is_room_for", lambda size: next(answers, is_room_for(size))):
            self.assertFalse(self.client.try_send(b"y"))
        self.assertTrue(self.client.wants_to_write or self.client.wait_time)  # else nothing would wake the loop

    def test_the_descriptor_is_readable_when_something_arrives(self) -> None:
        self.peer.sendall(DELIVERED)
        self.assertEqual(select.select([self.client], [], [], PATIENCE)[0], [self.client])


class TestClose(ClientTest):
    """The end of a connection."""

    def test_closing_waits_until_the_simulator_has_read_all(self) -> None:
        self.peer.sendall(DELIVERED)  # unread on the program's side
        self.client.queue_frame(b"last")
        results = []
        closing = in_background(self, lambda: results.append(self.client.close(PATIENCE)))
        self.assertEqual(read_exactly(self.peer, 9), messages.encode_frame(b"last"))
        self.assertEqual(self.peer.recv(1), b"")  # ended normally; a reset would raise
        self.assertTrue(closing.is_alive())
        self.peer.close()
        closing.join(PATIENCE)
        self.assertEqual(results, [True])

    def test_closing_tells_that_the_simulator_has_not_read_all_in_time(self) -> None:
        self.assertFalse(self.client.close(TINY))

    def test_closing_tells_that_the_simulator_has_left_bytes_unread(self) -> None:
        self.client.send_frame(b"unread")
        self.assertTrue(select.select([self.peer], [], [], PATIENCE)[0])
        self.peer.close()  # resets the connection
        self.assertFalse(self.client.close(PATIENCE))

    def test_an_error_in_a_block_closes_at_once(self) -> None:
        started = time.monotonic()
        with self.assertRaises(KeyboardInterrupt), self.client:
            raise KeyboardInterrupt
        self.assertLess(time.monotonic() - started, CLOSE_TIMEOUT / 2)
        self.assertEqual(self.client.fileno(), -1)

    def test_a_block_that_ends_the_program_waits_for_the_simulator(self) -> None:
        with mock.patch.object(self.client, "close") as close:
            with self.assertRaises(SystemExit), self.client:
                raise SystemExit
        close.assert_called_once_with(CLOSE_TIMEOUT)

    def test_a_simulator_that_keeps_sending_does_not_hold_up_the_end(self) -> None:
        def send() -> None:
            try:
                while True:
                    self.peer.sendall(10000 * DELIVERED)
            except OSError:
                pass

        in_background(self, send)
        started = time.monotonic()
        self.client.close(0.2)
        self.assertLess(time.monotonic() - started, PATIENCE / 2)

    def test_a_closed_client_says_so(self) -> None:
        in_background(self, self.peer.close)
        with self.client:
            pass
        self.assertEqual(self.client.fileno(), -1)
        for use in (lambda: self.client.send_frame(b"x"), lambda: self.client.receive(0), self.client.flush):
            with self.subTest(use):
                self.client._channel.withdraw()
                self.client._channel.queue(b"x")
                with self.assertRaisesRegex(lattivo.Disconnected, "this client has been closed"):
                    use()
        self.client.close()


def echo(server: socket.socket) -> None:
    """Give a program back what it sends, without a look at it."""
    peer, _ = server.accept()
    with peer:
        read_exactly(peer, IDENTIFICATION_SIZE)
        while data := peer.recv(65536):
            peer.sendall(data)


class TestSpeed(unittest.TestCase):
    """What a core carries, by the processor time of this process, which other programs change little."""

    FRAMES = 30_000
    ATTEMPTS = 3
    LEAST = 50_000  # frames of 64 bytes a second, sent and received

    def setUp(self) -> None:
        self.listener = self.enterContext(Listener())
        peer = multiprocessing.get_context("fork").Process(target=echo, args=(self.listener.server,), daemon=True)
        peer.start()
        self.addCleanup(peer.join)
        self.client = lattivo.Client.connect(port=self.listener.port, address=LEFT)
        self.addCleanup(self.client.close)

    def test_a_core_carries_single_frames(self) -> None:
        self.assert_fast(lambda frames: [self.client.send_frame(frame, PATIENCE) for frame in frames])

    def test_a_core_carries_frames_that_are_sent_together(self) -> None:
        self.assert_fast(lambda frames: self.client.send_frames(frames, PATIENCE))

    def assert_fast(self, send: Callable[[list[bytes]], object]) -> None:
        """Send frames in this way and receive them all, until it was fast enough once."""
        rate = 0.0
        for _ in range(self.ATTEMPTS):
            rate = max(rate, self.rate_of(send))
            if rate > self.LEAST:
                return
        self.fail(f"{rate:.0f} frames/s")

    def rate_of(self, send: Callable[[list[bytes]], object]) -> float:
        """Return the frames a second of processor time."""
        started = time.process_time()
        received = 0
        for frames in self.bursts():
            send(frames)
            received += len(self.client.receive_messages(0))
        while received < self.FRAMES:
            received += len(self.client.receive_messages(PATIENCE))
        return self.FRAMES / (time.process_time() - started)

    def bursts(self) -> Iterator[list[bytes]]:
        """Give the frames, 50 at a time."""
        for _ in range(self.FRAMES // 50):
            yield 50 * [bytes(64)]


if __name__ == "__main__":
    unittest.main()
