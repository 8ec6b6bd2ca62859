"""Hostile and careless programs, and a user who edits all the while: what happens beside the honest programs.

Every operation is drawn from one seed. Nothing here touches the nodes and links of the honest programs and of the
books; all the rest may be broken, renamed, deleted or taken over at any moment.
"""

import collections
import pathlib
import time

from measuring.soak import honest, programs
from measuring.soak.programs import bridge
from measuring.soak.simulator import (
    CHAOS_KIND,
    CHECKED,
    DESCRIPTORS,
    FLOOD_KIND,
    HANG,
    PROTECTED,
    UNCHECKED,
    UNKNOWN_KIND,
    add_node,
    attach,
)

MOST_NODES = 40
MOST_TALKERS = 25
MOST_HALF_OPEN = 60
KNOWN_ADDRESSES = 12
REFRESH = 0.5  # s between two looks at the items
LONGEST_STALL = 6.0  # s
LONGEST_BODY = 400  # bytes behind the addresses
CROWD = 1000  # connections at the same moment
CROWD_PATIENCE = 60.0  # s, to come and to go
LISTENING = 1  # sockets
DESCRIPTORS_LEFT = 12
CONNECTIONS_TOO_MANY = 60
EXHAUSTION = 2.0  # s
FLOOD_FRAME = 29_000  # bytes
UNSENT_LIMIT = 64 << 20  # bytes: a program that does not read is dropped beyond it
FLOOD_LIMIT = UNSENT_LIMIT + (24 << 20)  # and what the kernel holds
FLOOD_PATIENCE = 120.0  # s
FRAMES_BETWEEN_LOOKS = 100
PARTIALLY_CHECKED = 1
CHECK_STATES = [UNCHECKED, PARTIALLY_CHECKED, CHECKED]
COLOR_SLOTS = ["inactiveColorChanged", "activeColorChanged", "txColorChanged", "rxColorChanged"]

ORDINARY = {}  # operations, with how often each is drawn, compared with the others
RARE = []  # operations that take long


def ordinary(weight):
    """Let an operation be drawn that often."""

    def register(operation):
        ORDINARY[operation] = weight
        return operation

    return register


def rare(operation):
    """Let an operation be done once in a long epoch."""
    RARE.append(operation)
    return operation


class Talker:
    def __init__(self, program):
        self.program = program
        self.stalled_until = 0.0  # s of the monotonic clock


class Chaos:
    def __init__(self, simulator, rng, folder, log):
        self.simulator = simulator
        self.rng = rng
        self.folder = pathlib.Path(folder)
        self.log = log
        self.tally = collections.Counter()
        self.connections = 0
        self.errors = []
        self.talkers = []
        self.half_open = []
        self._nodes = []
        self._links = []
        self._looked_at = 0.0

    # The course of things

    def run(self, seconds, rare_operations=()):
        """Ordinary operations for so long, with the rare ones spread over the time in their order."""
        begin = time.monotonic()
        times = sorted(self.rng.uniform(0.1, 0.9) * seconds for _ in rare_operations)
        waiting = collections.deque(zip(times, rare_operations))
        operations, weights = zip(*ORDINARY.items())
        while time.monotonic() - begin < seconds or waiting:
            if waiting and time.monotonic() - begin >= waiting[0][0]:
                self.perform(waiting.popleft()[1])
            else:
                self.perform(self.rng.choices(operations, weights)[0])
            self._idle(self.rng.expovariate(1 / 0.03))

    def perform(self, operation):
        self.tally[operation.__name__] += 1
        self.log.info("%s", operation.__name__)
        self._look()
        operation(self)

    def leave(self):
        """All hostile programs let go of their sockets, one way or the other."""
        for talker in self.talkers:
            self.rng.choice([talker.program.close, talker.program.reset])()
        for program in self.half_open:
            program.close()
        self.talkers, self.half_open = [], []
        self._looked_at = 0.0

    def connected_programs(self):
        return [talker.program for talker in self.talkers] + self.half_open

    def _idle(self, seconds):
        end = time.monotonic() + seconds
        while True:
            self._serve_talkers()
            left = end - time.monotonic()
            if left <= 0:
                return
            time.sleep(min(left, 0.02))

    def _serve_talkers(self):
        now = time.monotonic()
        for talker in self.talkers:
            if now >= talker.stalled_until:
                talker.program.receive()
        for program in self.half_open:
            program.receive()
        self._drop_ended()

    def _drop_ended(self):
        for ended in [talker for talker in self.talkers if talker.program.has_ended]:
            ended.program.close()
            self.talkers.remove(ended)
        for ended in [program for program in self.half_open if program.has_ended]:
            ended.close()
            self.half_open.remove(ended)

    def _look(self, at_once=False):
        """At the items that chaos may touch."""
        if not at_once and time.monotonic() - self._looked_at < REFRESH:
            return
        state = self.simulator.do("state")
        protected = {node["number"] for node in state["nodes"] if node["name"].startswith(PROTECTED)}
        self._nodes = [node for node in state["nodes"] if node["number"] not in protected]
        self._links = [link["number"] for link in state["links"] if link["from"] not in protected]
        self._looked_at = time.monotonic()

    # Programs

    @ordinary(10)
    def attach(self):
        """As one of the nodes that are there, perhaps one that another program drives."""
        if not self._nodes:
            return
        node = self.rng.choice(self._nodes)
        self._add_talker(node["name"], bytes.fromhex(node["address"]))

    @ordinary(3)
    def attach_unknown(self):
        """As a node that is not there: a new one, or none."""
        number = self.rng.randrange(1000)
        self._add_talker(f"unknown-{number}", programs.address(UNKNOWN_KIND, number))

    @ordinary(2)
    def attach_strangely(self):
        """With an identification of the wrong kind or length, cut short, or with a name that nobody would choose."""
        names = ["", "x" * 20_000, "a\0b", "\u202e\U0001f600" * 50]
        whole = self.rng.choice([bridge.encode_name(name) for name in names] + [bridge.encode_address(b"\2" * 7)])
        message = whole[: self.rng.choice([len(whole), len(whole), 3, 6, 10])]
        program = self._connect()
        program.send(message)
        self.talkers.append(Talker(program))

    @ordinary(3)
    def come_back(self):
        """A program of the same name while the old connection stands."""
        node = self._attached_node()
        if node:
            self._add_talker(node["name"], bytes.fromhex(node["address"]))
            self._add_talker(node["name"], bytes.fromhex(node["address"]))

    def _add_talker(self, name, address):
        if len(self.talkers) >= MOST_TALKERS:
            self._farewell(self.rng.choice(self.talkers))
        program = self._connect()
        program.send(programs.identification(self.simulator.by_name, name, address))
        self.talkers.append(Talker(program))

    def _connect(self):
        self.connections += 1
        return programs.Program(self.simulator.port)

    def _attached_node(self):
        attached = [node for node in self._nodes if node["attached"]]
        return self.rng.choice(attached) if attached else None

    def _farewell(self, talker):
        self.talkers.remove(talker)
        self.rng.choice([talker.program.close, talker.program.reset])()

    def _some_talker(self):
        """None when nobody is there."""
        awake = [talker for talker in self.talkers if not talker.program.has_ended]
        return self.rng.choice(awake) if awake else None

    def _some_address(self):
        known = programs.address(CHAOS_KIND, self.rng.randrange(KNOWN_ADDRESSES))
        return self.rng.choice([known, known, programs.BROADCAST])

    def _some_frame(self):
        body = self.rng.randbytes(self.rng.randrange(LONGEST_BODY))
        return bridge.encode_frame(programs.frame(self._some_address(), self._some_address(), body))

    @ordinary(25)
    def talk(self):
        self._send_politely([self._some_frame() for _ in range(self.rng.randint(1, 12))])

    @ordinary(4)
    def talk_nonsense(self):
        """Frames that are too short or too long, empty ones and null ones."""
        sizes = [0, 1, 11, 30_001, 31_500]
        frames = [bridge.encode_frame(bytes(self.rng.choice(sizes))) for _ in range(4)]
        self._send_politely(frames + [bridge.HEADER.pack(bridge.MessageType.FRAME, bridge.NULL_LENGTH)])

    @ordinary(3)
    def talk_recklessly(self):
        """As fast as the socket takes it: messages are cut anywhere."""
        talker = self._some_talker()
        for _ in range(300 if talker else 0):
            if not talker.program.send(self._some_frame()):
                break

    @ordinary(5)
    def control(self):
        name = f"chaos-{self.rng.randrange(20)}"
        red, green, blue = self.rng.randbytes(3)
        messages = [
            bridge.encode_name(name),
            bridge.encode_address(self._some_address()),
            bridge.encode_address(b"\1\2"),
            bridge.encode_activation(False),
            bridge.encode_activation(True),
            bridge.encode_color(red, green, blue),
            bridge.encode_message(bridge.MessageType.DISCARDED, self.rng.randbytes(50)),
        ]
        self._send_politely(self.rng.sample(messages, 3))

    @ordinary(3)
    def break_protocol(self):
        garbage = self.rng.randbytes(self.rng.randint(1, 60))
        bad_type = bridge.encode_message(self.rng.choice([0, 2, 6, 7, 8, 255]), b"xyz")
        huge = bridge.HEADER.pack(self.rng.choice([1, 3, 4]), self.rng.choice([0xFFFFFFF0, 0x7FFFFFFF, 1 << 26]))
        self._send_politely([self.rng.choice([garbage, bad_type, huge])])

    def _send_politely(self, messages):
        talker = self._some_talker()
        for message in messages if talker else []:
            if not talker.program.send_when_safe(message, 0.2):
                break

    @ordinary(3)
    def stall(self):
        """Reads nothing for a while, and then goes on."""
        talker = self._some_talker()
        if talker:
            talker.stalled_until = time.monotonic() + self.rng.uniform(1.0, LONGEST_STALL)

    @ordinary(3)
    def end_in_mid_message(self):
        self._die_in_mid_message(programs.Program.close)

    @ordinary(3)
    def reset_in_mid_message(self):
        self._die_in_mid_message(programs.Program.reset)

    def _die_in_mid_message(self, end):
        talker = self._some_talker()
        if talker:
            message = self._some_frame()
            talker.program.send(self._some_frame() + message[: self.rng.randrange(1, len(message))])
            self.talkers.remove(talker)
            end(talker.program)

    @ordinary(2)
    def scan_port(self):
        """Connections that are closed at once, with and without a word."""
        for _ in range(self.rng.randint(1, 20)):
            program = self._connect()
            if self.rng.random() < 0.5:
                program.send(self.rng.choice([b"GET / HTTP/1.0\r\n\r\n", self.rng.randbytes(40), b"\3", b"\3\0\0\0"]))
            self.rng.choice([program.close, program.reset])()

    @ordinary(3)
    def connect_and_be_silent(self):
        if len(self.half_open) >= MOST_HALF_OPEN:
            self.half_open.pop(self.rng.randrange(len(self.half_open))).close()
        self.half_open.append(self._connect())

    # The user

    @ordinary(2)
    def add_node(self):
        if len(self._nodes) < MOST_NODES:
            number = self.rng.randrange(20)
            address = programs.address(CHAOS_KIND, number % KNOWN_ADDRESSES)
            add_node(self.simulator, self.rng, f"chaos-{number}", address)
            self._look(at_once=True)

    @ordinary(4)
    def add_link(self):
        if len(self._nodes) >= 2 and len(self._links) < 2 * MOST_NODES:
            first, second = self.rng.sample(self._nodes, 2)
            self.simulator.do("link", **{"from": first["number"], "to": second["number"]})
            self._look(at_once=True)

    @ordinary(1.5)
    def delete_node(self):
        if self._nodes:
            self._delete(self.rng.choice(self._nodes)["number"])

    @ordinary(1)
    def delete_talking_node(self):
        """With its frames in flight, right behind their sending."""
        node = self._attached_node()
        if node:
            self.talk()
            self._delete(node["number"])

    @ordinary(2)
    def delete_link(self):
        if self._links:
            self._delete(self.rng.choice(self._links))

    def _delete(self, number):
        self.simulator.do("delete", item=number)
        self._look(at_once=True)
        if len(self._nodes) < 5:
            self.add_node()

    @ordinary(3)
    def break_link(self):
        self._set_link("brokenChanged", CHECKED)

    @ordinary(3)
    def mend_link(self):
        self._set_link("brokenChanged", UNCHECKED)

    @ordinary(6)
    def change_link(self):
        value_of = {
            "reliabilityChanged": lambda: self.rng.choice([0.0, 50.0, 99.9, 100.0]),
            "errorDetectionReliabilityChanged": lambda: self.rng.choice([0.0, 50.0, 100.0]),
            "delayChanged": lambda: self.rng.choice([0, 1, 10, 100, 500]),
            "delayDeviationChanged": lambda: self.rng.choice([0, 1, 10, 200]),
            "connectionStrokeWidthChanged": lambda: self.rng.uniform(0.5, 9.0),
            "resetBehavior": lambda: 0,
            "resetAppearance": lambda: 0,
            "resetStatistics": lambda: 0,
        }
        slot = self.rng.choice(list(value_of))
        self._set_link(slot, value_of[slot]())

    def _set_link(self, slot, value):
        if self._links:
            self.simulator.set(self.rng.choice(self._links), (slot, value))

    @ordinary(6)
    def change_node(self):
        if self._nodes:
            self.simulator.set(self.rng.choice(self._nodes)["number"], self._node_setting())

    @ordinary(1)
    def change_default_node(self):
        self.simulator.set("default node", self._node_setting(["framesAcknowledgedChanged", "promiscuousModeChanged"]))

    def _node_setting(self, slots=None):
        value_of = {
            "framesAcknowledgedChanged": lambda: self.rng.choice(CHECK_STATES),
            "frameAcknowledgeTimeoutChanged": lambda: self.rng.choice([0, 1, 20, 1000]),
            "promiscuousModeChanged": lambda: self.rng.choice(CHECK_STATES),
            "disableChanged": lambda: self.rng.choice([UNCHECKED, UNCHECKED, CHECKED]),
            "showNodeAddressChanged": lambda: self.rng.choice(CHECK_STATES),
            "strokeWidthChanged": lambda: self.rng.uniform(0.5, 9.0),
            "nodeNameChanged": lambda: f"chaos-{self.rng.randrange(20)}",
            "resetAppearance": lambda: 0,
            "resetStatistics": lambda: 0,
            **{slot: lambda: f"#{self.rng.randrange(1 << 24):06x}" for slot in COLOR_SLOTS},
        }
        slot = self.rng.choice(slots or list(value_of))
        return slot, value_of[slot]()

    @ordinary(1)
    def change_default_link(self):
        slot = self.rng.choice(["reliabilityChanged", "errorDetectionReliabilityChanged"])
        self.simulator.set("default connection", (slot, self.rng.choice([0.0, 99.9, 100.0, 100.0])))

    @ordinary(2)
    def select(self):
        """The form of the item stays up while the item lives its life."""
        numbers = [node["number"] for node in self._nodes] + self._links + [0]
        self.simulator.do("select", item=self.rng.choice(numbers))

    @ordinary(2)
    def move_node(self):
        if self._nodes:
            number = self.rng.choice(self._nodes)["number"]
            self.simulator.do("move", item=number, x=self.rng.uniform(0, 700), y=self.rng.uniform(0, 500))

    @ordinary(1)
    def switch_capture(self):
        switches = {"enabled": self.rng.random() < 0.7, "follows": self.rng.random() < 0.5}
        self.simulator.do("capture", **switches, clear=self.rng.random() < 0.5)

    @ordinary(0.5)
    def export_capture(self):
        if not self.simulator.do("export", file=str(self.folder / "chaos.pcapdump"))["exported"]:
            self.errors.append("the capture is not exported")

    @ordinary(0.5)
    def save(self):
        if not self.simulator.do("save", file=str(self.folder / "chaos.ltvo"))["saved"]:
            self.errors.append("the simulation is not saved")

    @ordinary(1)
    def debug(self):
        self.simulator.do("debug", command=self.rng.randint(1, 6))

    @ordinary(1)
    def change_identification(self):
        self.simulator.identify_by(self.rng.random() < 0.5, self.rng.random() < 0.6)

    @ordinary(0.5)
    def restart_server(self):
        """Attached programs stay; those that are silent go."""
        self.simulator.listen()

    # Rare, because they take long

    @rare
    def come_in_a_crowd(self):
        crowd = self._gather(CROWD)
        connected = crowd.wait_until_connected(CROWD_PATIENCE)
        if connected < CROWD:
            self.errors.append(f"only {connected} of {CROWD} connections in {CROWD_PATIENCE:.0f} s")
        crowd.write(self.rng.randbytes(30), to_every=3)
        self._idle(self.rng.uniform(0.1, 1.0))
        crowd.disperse(resets=self.rng.random() < 0.5)
        if not self.simulator.wait_until(self._has_no_socket_too_many, CROWD_PATIENCE):
            sockets = self.simulator.open_sockets()
            self.errors.append(f"{sockets} sockets behind a crowd, for {self._most_sockets()} at most")

    @rare
    def use_up_descriptors(self):
        """The simulator has some left; a crowd takes them, saving and exporting have none, and then they are free.

        Both are done once before: the sanitizers need a descriptor to look at an object of a type new to them.
        """
        self._save_and_export()
        used = self.simulator.descriptors()
        limit = used[-1] + 1 + DESCRIPTORS_LEFT
        self.simulator.limit_descriptors(limit)
        crowd = self._gather(limit - len(used) + CONNECTIONS_TOO_MANY)
        if not self.simulator.wait_until(lambda: len(self.simulator.descriptors()) == limit, HANG):
            self.errors.append(f"the descriptors are not used up: {self.simulator.descriptors()} of {limit}")
        self._save_and_export()
        self._idle(EXHAUSTION)
        crowd.disperse(resets=self.rng.random() < 0.5)
        self._attach_for_certain("after descriptors were used up")
        self.simulator.limit_descriptors(DESCRIPTORS)

    def _save_and_export(self):
        """Whether or not it can be done."""
        self.simulator.do("save", file=str(self.folder / "shortage.ltvo"))
        self.simulator.do("export", file=str(self.folder / "shortage.pcapdump"))

    def _has_no_socket_too_many(self):
        return self.simulator.open_sockets() <= self._most_sockets()

    def _most_sockets(self):
        """One a program, and the listening one. How many the simulator held before is no measure: the kernel may
        have connected programs that are still to be accepted."""
        return LISTENING + 2 * len(honest.LINKS) + len(self.connected_programs())

    def _gather(self, size):
        self.connections += size
        return programs.Crowd(self.simulator.port, size)

    @rare
    def never_read(self):
        """A program that never reads is dropped when 64 MiB wait for it; its node and the rest go on."""
        address = programs.address(FLOOD_KIND, 1)
        self._identify_plainly()
        numbers = [
            add_node(self.simulator, self.rng, name, programs.address(FLOOD_KIND, number))
            for number, name in enumerate(["flood-source", "flood-target"])
        ]
        link = self.simulator.do("link", **{"from": numbers[0], "to": numbers[1]})["number"]
        self.simulator.set(link, ("reliabilityChanged", 100.0))
        source = attach(self.simulator, "flood-source", programs.address(FLOOD_KIND, 0))
        target = attach(self.simulator, "flood-target", address)
        self.connections += 2
        self._flood(source, target, programs.frame(address, programs.address(FLOOD_KIND, 0), bytes(FLOOD_FRAME)))
        source.close()
        target.close()
        for number in numbers:
            self.simulator.do("delete", item=number)
        self._look(at_once=True)

    def _flood(self, source, target, payload):
        message = bridge.encode_frame(payload)
        sent = 0
        deadline = time.monotonic() + FLOOD_PATIENCE
        while self.simulator.are_attached([target.local_port]):
            for _ in range(FRAMES_BETWEEN_LOOKS):
                sent += len(message) if source.send_when_safe(message, HANG) else 0
            self._serve_talkers()
            if sent > FLOOD_LIMIT or time.monotonic() > deadline:
                self.errors.append(f"a program that has not read {sent} bytes is still attached")
                return
        if sent < UNSENT_LIMIT:
            self.errors.append(f"a program that has not read {sent} bytes is not attached any more")

    def _attach_for_certain(self, when):
        """An ordinary program is served within the time that counts as a hang."""
        name = f"ordinary-{self.tally['serve_ordinary_program']}"
        self.tally["serve_ordinary_program"] += 1
        number = add_node(self.simulator, self.rng, name, programs.address(UNKNOWN_KIND, 5000))
        self._identify_plainly()
        try:
            self.connections += 1
            program = attach(self.simulator, name, programs.address(UNKNOWN_KIND, 5000))
        except (OSError, TimeoutError) as error:
            self.errors.append(f"no ordinary program is served {when}: {error}")
        else:
            program.close()
        self.simulator.do("delete", item=number)

    def _identify_plainly(self):
        """By address, so that a name that chaos has given away twice is no matter."""
        self.simulator.identify_by(by_name=False, plug_and_play=False)
