"""What begins with `start` and ends with `close`, as a context manager."""

from typing import Self


class Lifespan:
    """Base of what runs programs or holds something of the system.

    `close` may be called at any time and again: after a start that failed, too.
    """

    def start(self) -> None:
        """Begin."""
        raise NotImplementedError

    def close(self) -> None:
        """End, and leave nothing behind."""
        raise NotImplementedError

    def __enter__(self) -> Self:
        try:
            self.start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
