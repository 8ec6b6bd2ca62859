"""Tell what a sender is told of a frame: the rules of docs/protocol.md, in one table."""

from __future__ import annotations

import enum
from typing import NamedTuple, Sequence


class Fate(enum.Enum):
    """What becomes of a frame on one of the links of its sender."""

    IN_TIME = "the node that it names gets it before the sender's time-out"
    LATE = "the node that it names gets it after the time-out"
    OVERHEARD = "only a promiscuous node takes it"
    VANISHED = "its link is broken or deleted while it is under way"
    LOST = "the receiver notices a bit error, or is not named"
    ONTO_BROKEN_LINK = "its link is broken already"
    OF_BAD_SIZE = "it is too short or too long for any link"


class Rule(NamedTuple):
    """What a fate means to the sender."""

    confirms: bool  # a unicast frame
    carries: bool  # a broadcast is confirmed at once when this is its fate on the last link
    delivers: bool  # a frame that no link delivers is reported as lost at the time-out


RULES = {
    Fate.IN_TIME: Rule(confirms=True, carries=True, delivers=True),
    Fate.LATE: Rule(confirms=False, carries=True, delivers=True),
    Fate.OVERHEARD: Rule(confirms=False, carries=True, delivers=True),
    Fate.VANISHED: Rule(confirms=False, carries=True, delivers=True),
    Fate.LOST: Rule(confirms=False, carries=True, delivers=False),
    Fate.ONTO_BROKEN_LINK: Rule(confirms=False, carries=False, delivers=False),
    Fate.OF_BAD_SIZE: Rule(confirms=False, carries=False, delivers=False),
}


class Outcomes(NamedTuple):
    """How many outcomes of each kind a sender gets for one frame, when it asks for confirmations."""

    delivered: int
    lost: int


def outcomes(fates: Sequence[Fate], is_broadcast: bool = False) -> Outcomes:
    """Return the outcomes of a frame with these fates on the sender's links, in the order of the links."""
    rules = [RULES[fate] for fate in fates]
    if is_broadcast:
        confirmed = int(not rules or rules[-1].carries)
        is_lost = bool(rules) and not any(rule.delivers for rule in rules)
    else:
        confirmed = sum(rule.confirms for rule in rules)
        is_lost = not any(rule.delivers for rule in rules)
    return Outcomes(confirmed, int(is_lost))
