#!/usr/bin/env python3
"""A display application, as small as one can be that also survives bad days.

    display.py [--port=8080] [--ask=COMMAND]

Prints each message and, whenever it changes, the list that a user would see. Runs COMMAND once the
application listens, to ask the daemon to report all volumes again, as in
--ask='kill -USR1 $(pidof voldrake)'.
"""

import argparse
import os
import re
import select
import socket
import struct
import subprocess
import time
from xml.etree import ElementTree

TIME_LIMIT = 2  # seconds for one frame; the daemon never takes longer


def read_frame(connection: socket.socket) -> str:
    """The text of a connection's only frame. ValueError or OSError if it is not a valid frame."""
    data, deadline = b"", time.monotonic() + TIME_LIMIT
    while len(data) < 6 or len(data) < 2 + int.from_bytes(data[:2], "big"):
        connection.settimeout(max(deadline - time.monotonic(), 0.001))
        if not (piece := connection.recv(65536)) or time.monotonic() > deadline:
            raise ValueError("half a frame")
        data += piece
    payload = data[6:]
    if struct.unpack(">HHH", data[:6]) != (len(payload) + 4, 0, len(payload)):
        raise ValueError("contradictory lengths")
    if len(payload) % 2 or any(payload[0::2]):
        raise ValueError("a text that the daemon does not send")
    return payload[1::2].decode("latin-1")


def read_message(text: str) -> tuple[str, dict[str, str]]:
    """Kind and attributes. ValueError or ParseError if the text is not a valid message."""
    if not text.startswith("<message "):  # so no document type, whose entities could be endless
        raise ValueError("not a message")
    (element,) = ElementTree.fromstring(text).findall("content/*")
    return element.tag, {name: value.encode("latin-1").decode("utf-8", "surrogateescape")
                         for name, value in {"path": "", **element.attrib}.items()}


def mounted() -> set[str]:
    """Every directory on which something is mounted at this moment, according to the kernel."""
    with open("/proc/self/mountinfo", "rb") as table:
        places = [line.split(b" ")[4].decode("utf-8", "surrogateescape") for line in table]
    return {re.sub(r"\\([0-7]{3})", lambda code: chr(int(code[1], 8)), path) for path in places}


def place(path: str) -> str:
    """The path as the kernel knows it, even if /mnt is a link."""
    folder, _, name = path.rpartition("/")
    return f"{os.path.realpath(folder)}/{name}"


def shown(text: str) -> str:
    """The text, safe for a terminal."""
    return "".join(letter if letter.isprintable() else "?" for letter in text)


def take_message(connection: socket.socket, volumes: dict[str, str]) -> None:
    """Update the list of volumes, path to name, from a connection's message."""
    try:
        kind, volume = read_message(read_frame(connection))
    except (OSError, ValueError, ElementTree.ParseError) as error:
        print(f"ignored: {shown(str(error))}", flush=True)
        return
    if kind == "dataarrival":
        volumes[volume["path"]] = volume.get("friendlyname", "")
    elif kind == "dataremoval":
        volumes.pop(volume["path"], None)
    print(f"received: {shown(kind)} {shown(volume['path'])}", flush=True)


def main() -> None:
    """Listen, ask, and keep showing the volumes that are present."""
    parser = argparse.ArgumentParser(description="Shows the volumes of a unit.")
    parser.add_argument("--port", type=int, default=8080)
    parser.add_argument("--ask", metavar="COMMAND", help="asks for a new report of all volumes")
    options = parser.parse_args()
    listener = socket.create_server(("127.0.0.1", options.port), backlog=16)
    if options.ask:
        subprocess.run(options.ask, shell=True, check=False)
    volumes: dict[str, str] = {}
    displayed = None
    with open("/proc/self/mountinfo", "rb") as table:
        events = select.poll()
        events.register(listener, select.POLLIN)
        events.register(table, select.POLLPRI)  # the kernel signals every mount and unmount
        while True:
            there = mounted()
            display = {path: name for path, name in volumes.items() if place(path) in there}
            if display != displayed:
                displayed = display
                print("shown:", *(f"{shown(path)} ({shown(name)})"
                                  for path, name in display.items()), flush=True)
            if any(file == listener.fileno() for file, _ in events.poll()):
                connection, _ = listener.accept()
                with connection:
                    take_message(connection, volumes)


if __name__ == "__main__":
    main()
