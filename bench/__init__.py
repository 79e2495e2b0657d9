"""Measures what the daemon costs; `scripts/bench` runs it, docs/performance.md shows the result."""
