"""Python bindings of the tarvik gateway client library.

One class per gateway family (tarvik.CAN, tarvik.SPI, ...); every one connects with
``connect()`` or as a context manager, returns results as values and raises
:class:`TarvikError` with the library's result code and text when an operation fails
(:class:`SdoAbortError`, with the node's SDO abort code, when a CANopen node aborts).
Blocking calls release the GIL. ``tarvik.can.TarvikBus`` is the python-can interface.
"""

from ._tarvik import *  # noqa: F401,F403
from ._tarvik import SdoAbortError, TarvikError, error_message, __version__  # noqa: F401

# Flags of a CAN frame as the gateway carries them.
CAN_FLAG_EXTENDED = 0x01
CAN_FLAG_REMOTE = 0x02
CAN_FLAG_TIMESTAMP = 0x04
CAN_FLAG_FD = 0x08
