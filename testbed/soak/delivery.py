"""Whether each message came exactly once and in order, or its loss is accounted for.

The log has every text as it is queued, the application every text as it comes. Between the two a
text may be lost in three ways, which are the daemon's contract with the application:

- a republication discards what still waits, since fresh arrivals follow;
- a connection that the application breaks costs the one text that is under way;
- an application that stops listening loses what it had not accepted yet.

`Delivery` follows one line of texts, those that one thread at a time queues. It holds every
position that the reader may have reached, so that equal texts are told apart by what follows.
"""

from testbed.soak import Violation


class Delivery:
    """One line of texts, from the log to the application."""

    def __init__(self, name: str, slack: int) -> None:
        """`slack`: how many texts may be queued by another thread between the log line of a
        republication and the discarding, or the other way round."""
        self.name = name
        self.delivered = 0
        self.forgiven = 0  # losses by broken connections that were really met
        self._slack = slack
        self._first = 0  # number of the oldest text that is kept
        self._texts: list[str] = []
        self._discards: list[int] = []  # numbers of the texts before which all may be discarded
        self._states = {0}

    def queued(self, text: str) -> None:
        """The log has this text."""
        self._texts.append(text)

    def discarded(self) -> None:
        """The log says that everything is republished."""
        self._discards.append(self._end())

    def came(self, text: str) -> None:
        """The application got this text. Raises Violation when it cannot be the next one."""
        reachable = self._closure(self._states)
        states = {number + 1 for number in reachable
                  if number < self._end() and self._texts[number - self._first] == text}
        if not states:
            raise Violation(f"message of {self.name} out of order, twice or never queued: {text}\n"
                            f"expected one of: {self._expected(reachable)}")
        self.delivered += 1
        self._states = states
        self._forget()

    def lost(self) -> None:
        """The application broke a connection, or its end left one behind: a text may be lost."""
        reachable = self._closure(self._states)
        self._states |= {number + 1 for number in reachable if number < self._end()}
        self.forgiven += 1

    def complete(self) -> bool:
        """True when nothing may still be under way."""
        return self._end() in self._closure(self._states)

    def missing(self) -> str:
        """The texts that wait, for a report."""
        return self._expected(self._closure(self._states))

    def _end(self) -> int:
        return self._first + len(self._texts)

    def _closure(self, states: set[int]) -> set[int]:
        reachable = set(states)
        for discard in self._discards:
            if any(number <= discard + self._slack for number in reachable):
                first = max(min(reachable), discard - self._slack)
                reachable |= set(range(first, min(discard + self._slack, self._end()) + 1))
        return reachable

    def _forget(self) -> None:
        oldest = min(self._states)
        self._discards = [discard for discard in self._discards
                          if discard + self._slack >= oldest]
        del self._texts[:oldest - self._first]
        self._first = oldest

    def _expected(self, reachable: set[int]) -> str:
        texts = [self._texts[number - self._first] for number in sorted(reachable)
                 if number < self._end()]
        return "\n".join(f"    {text}" for text in texts[:8]) or "    (nothing)"
