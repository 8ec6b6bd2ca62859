"""The simulator under test: its process, and the network that it begins with."""

import collections
import os
import re
import resource
import time

from measuring.soak import honest, programs
from measuring.soak.dialogue import Dialogue

CHECKED, UNCHECKED = 2, 0
DESCRIPTORS = 4096  # of the simulator, when none are taken away from it
HANG = 10.0  # s without an answer: the simulator hangs
MAXIMAL_TRANSFER_UNIT = 30_000  # bytes; in one segment on the local machine, so never cut
POLL = 0.02  # s

CHAOS_KIND, BOOK_KIND, FLOOD_KIND, UNKNOWN_KIND = 2, 3, 4, 5  # of addresses; honest programs have their own
PROTECTED = ("honest-", "book-")  # names that hostile programs never use
CHAOS_NODES = 10
CHAOS_LINKS = 14

CERTAIN_LINK = [("reliabilityChanged", 100.0), ("errorDetectionReliabilityChanged", 100.0)]


class Simulator(Dialogue):
    def __init__(self, program, seed, log, environment):
        super().__init__([str(program), str(seed)], log, environment, patience=HANG)
        self.limit_descriptors(DESCRIPTORS)
        self.port = None
        self.by_name = False

    def do(self, what, **arguments):
        """A command that has to succeed."""
        answer = self.ask(what, **arguments)
        if "error" in answer:
            raise ValueError(f"{what} {arguments}: {answer['error']}")
        return answer

    def set(self, item, *settings):
        for slot, value in settings:
            self.do("set", item=item, slot=slot, value=value)

    def listen(self):
        self.do("listen", on=False)
        self.port = self.do("listen", on=True)["port"]

    def identify_by(self, by_name, plug_and_play):
        self.do("identification", by_name=by_name, plug_and_play=plug_and_play)
        self.by_name = by_name

    def nodes(self):
        return self.do("state")["nodes"]

    def node(self, name):
        """None when there is none of that name."""
        return next((node for node in self.nodes() if node["name"] == name), None)

    def wait_until(self, condition, seconds):
        """Whether it becomes true in time."""
        deadline = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > deadline:
                return False
            time.sleep(POLL)
        return True

    def are_attached(self, program_ports):
        """Whether nodes are attached to all these ports of programs."""
        return set(program_ports) <= {node["peer"] for node in self.nodes()}

    def descriptors(self):
        return sorted(int(name) for name in os.listdir(f"/proc/{self.process.pid}/fd"))

    def descriptor_targets(self):
        """What the open ones are: files, and the numbers of each other kind."""
        targets = [re.sub(r"\[\d+\]", "", target) for target in map(self._target, self.descriptors()) if target]
        return dict(sorted(collections.Counter(targets).items()))

    def _target(self, descriptor):
        try:
            return os.readlink(f"/proc/{self.process.pid}/fd/{descriptor}")
        except FileNotFoundError:
            return None  # closed since it was listed

    def open_sockets(self):
        return self.descriptor_targets().get("socket:", 0)

    def limit_descriptors(self, limit):
        resource.prlimit(self.process.pid, resource.RLIMIT_NOFILE, (limit, DESCRIPTORS))

    def resident_bytes(self):
        with open(f"/proc/{self.process.pid}/statm") as file:
            return int(file.read().split()[1]) * resource.getpagesize()


def add_node(simulator, rng, name, address):
    place = {"x": rng.uniform(0, 700), "y": rng.uniform(0, 500)}
    return simulator.do("add_node", name=name, address=address.hex(), **place)["number"]


def add_honest_pairs(simulator, rng):
    for pair, link in enumerate(honest.LINKS):
        numbers = [2 * pair, 2 * pair + 1]
        ends = [add_node(simulator, rng, honest.node_name(end), honest.node_address(end)) for end in numbers]
        for end in ends:
            confirms = CHECKED if link.confirms else UNCHECKED
            simulator.set(end, ("framesAcknowledgedChanged", confirms), ("promiscuousModeChanged", UNCHECKED))
            simulator.set(end, ("frameAcknowledgeTimeoutChanged", link.timeout))
        number = simulator.do("link", **{"from": ends[0], "to": ends[1]})["number"]
        simulator.set(number, *CERTAIN_LINK, ("delayChanged", link.delay), ("delayDeviationChanged", link.deviation))


def add_chaos_nodes(simulator, rng):
    names = [f"chaos-{number}" for number in range(CHAOS_NODES)]
    ends = [add_node(simulator, rng, name, programs.address(CHAOS_KIND, number)) for number, name in enumerate(names)]
    for _ in range(CHAOS_LINKS):
        first, second = rng.sample(ends, 2)
        simulator.do("link", **{"from": first, "to": second})


def attach(simulator, name, address):
    """A program whose node is attached for certain."""
    program = programs.Program(simulator.port)
    program.send(programs.identification(simulator.by_name, name, address))
    if not simulator.wait_until(lambda: simulator.are_attached([program.local_port]), HANG):
        raise TimeoutError(f"{name} is not attached")
    return program
