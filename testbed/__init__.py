"""A whole unit on one machine: sandbox, message bus, hardware service, application, daemon.

The system tests and the demo are made of the same pieces. `Unit` puts them together; README.md
beside this file shows how they are used.
"""
