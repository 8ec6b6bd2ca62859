"""Tell what a sender is told of a frame: the rules of docs/protocol.md, in one table."""

from __future__ import annotations

import enum
from typing import NamedTuple, Sequence


class Rule(NamedTuple):
    """What a fate means to the sender."""

    meaning: str
    confirms: bool = False  # a unicast frame
    carries: bool = False  # a broadcast is confirmed at once when this is its fate on the last link
    delivers: bool = False  # a frame that no link delivers is reported as lost at the time-out


class Fate(Rule, enum.Enum):
    """What becomes of a frame on one of the links of its sender."""

    IN_TIME = Rule("the node that it names gets it before the sender's time-out", True, carries=True, delivers=True)
    LATE = Rule("the node that it names gets it after the time-out", carries=True, delivers=True)
    OVERHEARD = Rule("only a promiscuous node takes it", carries=True, delivers=True)
    VANISHED = Rule("its link is broken or deleted while it is under way", carries=True, delivers=True)
    LOST = Rule("the receiver notices a bit error, or is not named", carries=True)
    ONTO_BROKEN_LINK = Rule("its link is broken already")
    OF_BAD_SIZE = Rule("it is too short or too long for any link")


class Outcomes(NamedTuple):
    """How many outcomes of each kind a sender gets for one frame, when it asks for confirmations."""

    delivered: int
    lost: int


def outcomes(fates: Sequence[Fate], is_broadcast: bool = False) -> Outcomes:
    """Return the outcomes of a frame with these fates on the sender's links, in the order of the links."""
    if is_broadcast:
        confirmed = int(not fates or fates[-1].carries)
        is_lost = bool(fates) and not any(fate.delivers for fate in fates)
    else:
        confirmed = sum(fate.confirms for fate in fates)
        is_lost = not any(fate.delivers for fate in fates)
    return Outcomes(confirmed, int(is_lost))
