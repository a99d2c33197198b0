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
from ._tarvik import CAN_FLAG_EXTENDED, CAN_FLAG_REMOTE, CAN_FLAG_TIMESTAMP, CAN_FLAG_FD  # noqa: F401
