"""Tests of the client for asyncio, against a peer that the test plays."""

from __future__ import annotations

import asyncio
import multiprocessing
import select
import socket
import time
import unittest

import lattivo
from lattivo import messages
from lattivo.client import CLOSE_TIMEOUT
from tests.support.scriptedpeer import PATIENCE, Listener, read_exactly
from tests.unit.test_lattivo_client import (
    DELIVERED,
    IDENTIFICATION_SIZE,
    LEFT,
    TINY,
    WRONG_OPENINGS,
    echo,
    tear_next_call,
)


async def in_thread(work, *arguments):
    """Wait for something that blocks, without holding up the client."""
    return await asyncio.get_running_loop().run_in_executor(None, work, *arguments)


class AioTest(unittest.IsolatedAsyncioTestCase):
    """A client that has identified itself by address, and its peer."""

    async def asyncSetUp(self) -> None:
        self.listener = self.enterContext(Listener())
        self.listener.server.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32768)  # little room, counted in bytes
        self.client = await lattivo.aio.connect(port=self.listener.port, address=LEFT)
        self.addAsyncCleanup(self.client.close, 0.0)
        self.peer = self.listener.accept()
        self.addCleanup(self.peer.close)
        self.assertEqual(read_exactly(self.peer, IDENTIFICATION_SIZE), messages.encode_address(LEFT))

    async def fill_path(self) -> int:
        """Send frames that the peer does not read, until there is no room for more; return how many."""
        count = 0
        with self.assertRaises(asyncio.TimeoutError):
            while True:
                await asyncio.wait_for(self.client.send_frame(bytes(1000)), 4 * TINY)
                count += 1
        return count


class TestConnect(unittest.IsolatedAsyncioTestCase):
    """Connecting and identifying."""

    async def asyncSetUp(self) -> None:
        self.listener = self.enterContext(Listener())

    async def test_nobody_there_is_an_error_that_names_the_place(self) -> None:
        self.listener.server.close()
        with self.assertRaisesRegex(lattivo.ConnectError, rf"port {self.listener.port}: Connection refused"):
            await lattivo.aio.connect(port=self.listener.port, address=LEFT)

    async def test_a_host_without_address_is_an_error_of_its_own(self) -> None:
        with self.assertRaises(lattivo.UnknownHost):
            await lattivo.aio.connect("no.such.host.invalid", address=LEFT)

    async def test_a_wrong_argument_is_an_error_at_once(self) -> None:
        for wrong in WRONG_OPENINGS:
            with self.subTest(wrong), self.assertRaises(lattivo.WrongUse):
                lattivo.aio.connect(**{"port": self.listener.port, "address": LEFT, **wrong})

    async def test_a_task_of_its_own_may_connect(self) -> None:
        connecting = asyncio.ensure_future(lattivo.aio.connect(port=self.listener.port, address=LEFT))
        await (await connecting).close(0.0)

    async def test_behind_a_name_two_further_connections_must_have_ended(self) -> None:
        connecting = asyncio.ensure_future(self.connect_by_name())
        peer = await in_thread(self.listener.accept)
        self.addCleanup(peer.close)
        for _ in range(2):
            with await in_thread(self.listener.accept):
                await asyncio.sleep(TINY)
                self.assertFalse(connecting.done())
        await connecting

    async def connect_by_name(self) -> None:
        """Connect as a context manager does."""
        async with lattivo.aio.connect(port=self.listener.port, name="Left") as client:
            self.assertGreaterEqual(client.largest_sendable_frame, 1000)
            await client.close(0.0)

    async def test_a_simulator_that_never_reads_the_name_is_given_up(self) -> None:
        with self.assertRaisesRegex(lattivo.ConnectError, "has not answered for 0.2 s"):
            await lattivo.aio.connect(port=self.listener.port, name="Left", timeout=0.2)
        with self.listener.accept() as peer:
            self.assertEqual(len(read_exactly(peer, 11)), 10)  # the name, then the end: no socket stays open


class TestMessages(AioTest):
    """Both ways."""

    async def test_every_call_sends_its_message(self) -> None:
        await self.client.send_frame(b"frame")
        await self.client.send_frames([b"1", b"2"])
        await self.client.set_address(LEFT)
        await self.client.set_name("Left")
        await self.client.activate()
        await self.client.deactivate()
        await self.client.set_color(64, 128, 32)
        frames = [messages.encode_frame(frame) for frame in (b"frame", b"1", b"2")]
        controls = [messages.encode_address(LEFT), messages.encode_name("Left")]
        controls += [messages.encode_activation(True), messages.encode_activation(False)]
        expected = b"".join(frames + controls) + messages.encode_color(64, 128, 32)
        self.assertEqual(read_exactly(self.peer, len(expected)), expected)

    async def test_a_message_in_pieces_is_waited_for(self) -> None:
        self.peer.sendall(DELIVERED[:3])
        receiving = asyncio.ensure_future(self.client.receive())
        await asyncio.sleep(TINY)
        self.assertFalse(receiving.done())
        self.peer.sendall(DELIVERED[3:])
        self.assertEqual(await receiving, lattivo.Confirmation(lattivo.Outcome.DELIVERED))

    async def test_a_cancelled_receiver_loses_no_message(self) -> None:
        with self.assertRaises(asyncio.TimeoutError):
            await asyncio.wait_for(self.client.receive(), TINY)
        self.peer.sendall(DELIVERED)
        await asyncio.wait_for(self.client.receive(), PATIENCE)

    async def test_the_iterator_ends_with_the_connection(self) -> None:
        self.peer.sendall(3 * DELIVERED)
        self.peer.close()
        self.assertEqual(len([message async for message in self.client]), 3)
        with self.assertRaises(lattivo.Disconnected):
            await self.client.receive()

    async def test_a_loop_that_breaks_off_leaves_the_other_messages(self) -> None:
        self.peer.sendall(3 * DELIVERED)
        async for _ in self.client:
            break
        self.assertEqual(len(await asyncio.wait_for(self.client.receive_messages(), 4 * TINY)), 2)

    async def test_a_task_cancelled_before_any_of_its_sends_has_sent_nothing(self) -> None:
        for count in range(2 * lattivo.aio.SENDS_AT_A_TIME):
            with self.subTest(count):
                sending = asyncio.ensure_future(self.client.send_frame(b"cancelled"))
                await asyncio.sleep(0)
                if sending.cancel():
                    with self.assertRaises(asyncio.CancelledError):
                        await sending
                else:
                    self.assertEqual(await in_thread(read_exactly, self.peer, 14), messages.encode_frame(b"cancelled"))
        self.assertFalse(select.select([self.peer], [], [], TINY)[0])

    async def test_a_cancelled_sender_has_sent_nothing_of_its_frame(self) -> None:
        size = await self.fill_path() * 1005
        self.assertEqual(len(await in_thread(read_exactly, self.peer, size)), size)
        await self.client.send_frame(b"next")
        self.assertEqual(await in_thread(read_exactly, self.peer, 9), messages.encode_frame(b"next"))

    async def test_a_frame_is_sent_with_the_rest_that_the_kernel_did_not_take(self) -> None:
        tear_next_call(self.client)
        await self.client.send_frame(b"torn")
        self.assertEqual(await in_thread(read_exactly, self.peer, 9), messages.encode_frame(b"torn"))

    async def test_sending_goes_on_when_there_is_room_again(self) -> None:
        count = await self.fill_path()
        sending = asyncio.ensure_future(self.client.send_frames(bytes(1000) for _ in range(100)))
        size = (count + 100) * 1005
        self.assertEqual(len(await in_thread(read_exactly, self.peer, size)), size)
        self.assertEqual(await sending, 100)

    async def test_frames_before_one_that_is_too_large_are_sent(self) -> None:
        with self.assertRaises(lattivo.FrameTooLarge):
            await self.client.send_frames([b"1", b"2", bytes(100_000), b"3"])
        self.assertEqual(read_exactly(self.peer, 12), messages.encode_frame(b"1") + messages.encode_frame(b"2"))

    async def test_several_tasks_send_whole_frames(self) -> None:
        frames = [bytes([task]) * 1000 for task in range(8)]
        sending = [asyncio.ensure_future(self.client.send_frames(20 * [frame])) for frame in frames]
        data = await in_thread(read_exactly, self.peer, 8 * 20 * 1005)
        self.assertEqual([await task for task in sending], 8 * [20])
        received = [data[start + 5 : start + 1005] for start in range(0, len(data), 1005)]
        self.assertEqual(sorted(received), sorted(20 * frames))

    async def test_nothing_is_read_until_somebody_receives(self) -> None:
        def fill() -> int:
            self.peer.settimeout(4 * TINY)
            sent = 0
            try:
                while True:
                    sent += self.peer.send(DELIVERED * 1000)
            except OSError:
                return sent

        sent = await in_thread(fill)
        received = 0
        while received < sent // len(DELIVERED):
            received += len(await asyncio.wait_for(self.client.receive_messages(), PATIENCE))

    async def test_a_busy_sender_lets_other_tasks_in(self) -> None:
        turns = 0

        async def count_turns() -> None:
            nonlocal turns
            while True:
                turns += 1
                await asyncio.sleep(0)

        counting = asyncio.ensure_future(count_turns())
        for _ in range(10 * lattivo.aio.SENDS_AT_A_TIME):  # there is room for all of them
            await self.client.send_frame(b"x")
        counting.cancel()
        self.assertGreaterEqual(turns, 10)

    async def test_closing_waits_until_the_simulator_has_read_all(self) -> None:
        self.peer.sendall(DELIVERED)  # unread on the program's side
        await self.client.send_frame(b"last")
        closing = asyncio.ensure_future(self.client.close(PATIENCE))
        self.assertEqual(await in_thread(read_exactly, self.peer, 10), messages.encode_frame(b"last"))  # then the end
        self.assertFalse(closing.done())
        self.peer.close()
        self.assertTrue(await closing)
        self.assertEqual(self.client._channel.fileno(), -1)

    async def test_closing_tells_that_the_simulator_has_not_read_all_in_time(self) -> None:
        self.assertFalse(await self.client.close(TINY))

    async def test_an_error_in_a_block_closes_at_once(self) -> None:
        with self.assertRaises(KeyError):
            async with lattivo.aio.connect(port=self.listener.port, address=LEFT):
                started = time.monotonic()
                raise KeyError
        self.assertLess(time.monotonic() - started, CLOSE_TIMEOUT / 2)

    async def test_closing_ends_the_tasks_that_wait(self) -> None:
        await self.fill_path()
        waiting = [self.client.receive(), self.client.receive(), self.client.send_frame(bytes(1000))]
        tasks = [asyncio.ensure_future(wait) for wait in waiting]
        await asyncio.sleep(TINY)
        closing = asyncio.ensure_future(self.client.close(PATIENCE))
        for task in tasks:
            with self.assertRaisesRegex(lattivo.Disconnected, "this client has been closed"):
                await asyncio.wait_for(task, PATIENCE / 2)
        self.assertFalse(closing.done())
        self.peer.close()
        await asyncio.wait_for(closing, PATIENCE / 2)

    async def test_two_tasks_may_close(self) -> None:
        closing = [asyncio.ensure_future(self.client.close(PATIENCE)) for _ in range(2)]
        await asyncio.sleep(TINY)
        self.peer.close()
        await asyncio.wait_for(asyncio.gather(*closing), PATIENCE / 2)


class TestSpeed(unittest.TestCase):
    """What a core carries, by the processor time of this process, which other programs change little."""

    FRAMES = 30_000
    ATTEMPTS = 3
    LEAST = 50_000  # frames of 64 bytes a second, sent and received

    def test_a_core_carries_frames_that_are_sent_together(self) -> None:
        listener = self.enterContext(Listener())
        peer = multiprocessing.get_context("fork").Process(target=echo, args=(listener.server,), daemon=True)
        peer.start()
        self.addCleanup(peer.join)
        self.assertGreater(asyncio.run(self.best_rate(listener.port)), self.LEAST)

    async def best_rate(self, port: int) -> float:
        """Return the most frames a second of processor time, fast enough or after some attempts."""
        best = 0.0
        async with lattivo.aio.connect(port=port, address=LEFT) as client:
            for _ in range(self.ATTEMPTS):
                started = time.process_time()
                receiving = asyncio.ensure_future(self.receive(client))
                for _ in range(self.FRAMES // 50):
                    await client.send_frames(50 * [bytes(64)])
                await receiving
                best = max(best, self.FRAMES / (time.process_time() - started))
                if best > self.LEAST:
                    break
        return best

    async def receive(self, client: lattivo.aio.Client) -> None:
        """Receive all frames."""
        received = 0
        while received < self.FRAMES:
            received += len(await client.receive_messages())


if __name__ == "__main__":
    unittest.main()
