"""Reads lab/interfaces, the interfaces probemond knows, for Python tools."""
import os

PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "interfaces")


def names(path=PATH):
    """The interface names, in the daemon's registry order."""
    with open(path) as f:
        rows = [line.split() for line in f if not line.lstrip().startswith("#")]
    return [row[0] for row in rows if row]
