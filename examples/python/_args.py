"""The examples' command line: HOST [PORT_INDEX]."""

import sys


def target():
    host = sys.argv[1] if len(sys.argv) > 1 else "127.0.0.1"
    index = int(sys.argv[2]) if len(sys.argv) > 2 else 0
    return host, index
