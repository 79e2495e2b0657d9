"""What the display application gets: one frame per connection, and the message in it.

Written from the format alone, so that it can contradict the daemon:

    offset 0  2 bytes  big-endian: number of bytes that follow this field
    offset 2  2 bytes  zero
    offset 4  2 bytes  big-endian: number of bytes of text
    offset 6           the text, UTF-16 big-endian
"""

import struct
import xml.etree.ElementTree
from dataclasses import dataclass

_HEADER = struct.Struct(">HHH")


class BadFrame(AssertionError):
    """Bytes that are not one whole well-formed frame."""


@dataclass(frozen=True)
class Frame:
    """The bytes of one connection."""

    raw: bytes

    def text(self) -> str:
        """The text in the frame. Raises BadFrame."""
        return decode(self.raw)

    def cut(self) -> bool:
        """True when it ends too early, as that of a sender that was killed."""
        return len(self.raw) < 2 or len(self.raw) - 2 < int.from_bytes(self.raw[:2], "big")

    def message(self) -> "Message":
        """The message in the frame. Raises BadFrame."""
        return Message.parse(self.text())


@dataclass(frozen=True)
class Message:
    """A data-source message: `kind` is "dataarrival" or "dataremoval"."""

    kind: str
    attributes: dict[str, str]

    @staticmethod
    def parse(text: str) -> "Message":
        """Raises BadFrame when the text is not such a message."""
        try:
            message = xml.etree.ElementTree.fromstring(text)
        except xml.etree.ElementTree.ParseError as error:
            raise BadFrame(f"not XML ({error}): {text}") from None
        if (message.tag, message.attrib) != ("message", {"version": "1", "type": "datasource"}):
            raise BadFrame(f"not a data-source message: {text}")
        contents = message.findall("content/*")
        if len(contents) != 1:
            raise BadFrame(f"not one content: {text}")
        return Message(contents[0].tag, dict(contents[0].attrib))

    def __getitem__(self, name: str) -> str:
        return self.attributes[name]


def encode(text: str) -> bytes:
    """The one frame that holds `text`, whose characters are all below U+0100."""
    payload = b"".join(bytes((0, byte)) for byte in text.encode("latin-1"))
    return _HEADER.pack(4 + len(payload), 0, len(payload)) + payload


def decode(raw: bytes) -> str:
    """The text of a frame. Raises BadFrame when any field or the length is not as it must be."""
    if len(raw) < _HEADER.size:
        raise BadFrame(f"only {len(raw)} bytes: {raw.hex(' ')}")
    following, zero, length = _HEADER.unpack_from(raw)
    payload = raw[_HEADER.size:]
    if following != len(raw) - 2 or zero != 0 or length != len(payload) or length % 2:
        raise BadFrame(f"fields {following}, {zero}, {length} before {len(payload)} bytes of text:"
                       f" {raw.hex(' ')}")
    return payload.decode("utf-16-be")
