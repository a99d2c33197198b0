"""python-can interface for tarvik CAN gateways.

``can.Bus(interface="tarvik", channel="192.168.0.50")`` opens the gateway's CAN port 0;
``channel="host:1"`` the port with index 1 (``"[fd00::50]:1"`` for IPv6). ``channel_info``
("tarvik:192.168.0.50:0") names the bus in received messages and logs. Received frames come from the client's receive
queue; the receive filters (``can_filters``) are applied in software by python-can, so
every frame the gateway's own acceptance filter passes reaches this process.
Periodic sends with one message and no duration run on the gateway as cyclic messages.
"""

import collections
import ipaddress
import re
import socket
import threading
import time
import warnings
from typing import Any, List, Optional, Sequence, Tuple, Union

import can
from can.broadcastmanager import CyclicSendTaskABC

from . import CAN as _CAN, TarvikError
from . import CAN_FLAG_EXTENDED as FLAG_EXTENDED, CAN_FLAG_REMOTE as FLAG_REMOTE  # noqa: F401
from . import CAN_FLAG_TIMESTAMP as FLAG_TIMESTAMP, CAN_FLAG_FD as FLAG_FD  # noqa: F401

# The gateway's cyclic table has sixteen entries.
_CYCLIC_ENTRIES = 16
# Frames taken from the client's queue at once; recv() serves them one by one.
_RECV_BATCH = 256


# The gateway's port indexes (port 5001 + 100 x index).
_MAX_PORT_INDEX = 99
_CHANNEL_FORM = "host[:index], e.g. '192.168.0.50' or '192.168.0.50:1' ([fd00::50]:1 for IPv6)"
_HOST_NAME = re.compile(r"^[A-Za-z0-9]([A-Za-z0-9.-]*[A-Za-z0-9])?$")


def _channel_error(text: str, why: str) -> ValueError:
    return ValueError("channel %r: %s; expected %s" % (text, why, _CHANNEL_FORM))


def parse_channel(channel: Any) -> Tuple[str, int]:
    """Splits "host[:index]" into (host, port index); "[v6]:index" or a bare IPv6 address
    for IPv6. ValueError naming the form for anything else, also for a host that does
    not resolve."""
    text = str(channel if channel is not None else "127.0.0.1").strip()
    host, index = text, "0"
    if text.startswith("["):
        close = text.find("]")
        if close < 0 or (close + 1 < len(text) and text[close + 1] != ":"):
            raise _channel_error(text, "unclosed or misplaced ']'")
        host, index = text[1:close], text[close + 2:] if close + 1 < len(text) else "0"
    elif text.count(":") == 1:
        host, _, index = text.partition(":")
    if not index.isdigit() or int(index) > _MAX_PORT_INDEX:
        raise _channel_error(text, "the index must be a number 0..%d" % _MAX_PORT_INDEX)
    try:
        ipaddress.ip_address(host)
    except ValueError:
        if not _HOST_NAME.match(host):
            raise _channel_error(text, "not a host name or address") from None
        try:
            socket.getaddrinfo(host, None)
        except OSError:
            raise _channel_error(text, "host %r does not resolve" % host) from None
    return host, int(index)


def _flags_of(msg: can.Message) -> int:
    flags = 0
    if msg.is_extended_id:
        flags |= FLAG_EXTENDED
    if msg.is_remote_frame:
        flags |= FLAG_REMOTE
    if msg.is_fd:
        flags |= FLAG_FD
    return flags


class TarvikCyclicSendTask(CyclicSendTaskABC):
    """A periodic send carried out by the gateway (one of its cyclic message entries)."""

    def __init__(self, bus: "TarvikBus", index: int, message: can.Message, period: float) -> None:
        super().__init__(message, period)
        self._bus = bus
        self._index = index
        self._running = False
        self._start()

    def _start(self) -> None:
        msg = self.messages[0]
        interval_ms = max(1, int(round(self.period * 1000)))
        self._bus._call(self._bus._can.set_cyclic_message, self._index, True, interval_ms,
                        msg.arbitration_id, bytes(msg.data), _flags_of(msg))
        self._running = True

    def stop(self) -> None:
        """Disables the gateway's entry: once this returns no further frame goes out."""
        if not self._running:
            return
        self._running = False
        try:
            self._bus._can.set_cyclic_message(self._index, False)
        except TarvikError:
            pass  # the connection is gone: so is the entry's use
        self._bus._release_cyclic(self._index)


class TarvikBus(can.BusABC):
    """A tarvik CAN gateway as a python-can bus.

    :param channel: "host" or "host:index" (port index, default 0).
    :param bitrate: if given, set on the gateway (its other bus settings are kept).
    :param can_filters: python-can receive filters, applied in software.
    :param timeout_ms: the library's time-out for each request.
    :param queue_size: capacity of the client's receive queue (frames beyond it are dropped).
    :param send_confirm: wait for the gateway's confirmation of each frame sent (reports
        transmit errors such as a missing acknowledge); False sends without waiting.
    :param gateway_timestamps: time-stamp received frames with the gateway's clock (set
        from this host's clock when it was never set); False uses the arrival time.
    """

    def __init__(self, channel: Any = "127.0.0.1", can_filters=None, bitrate: Optional[int] = None,
                 timeout_ms: int = 2000, queue_size: int = 100000, send_confirm: bool = True,
                 gateway_timestamps: bool = True, **kwargs: object) -> None:
        self._host, self._index = parse_channel(channel)
        # No white space: logs carry it as the channel name (candump's format splits at blanks).
        host = "[%s]" % self._host if ":" in self._host else self._host
        self.channel_info = "tarvik:%s:%d" % (host, self._index)
        self._cyclic_lock = threading.Lock()
        self._cyclic_used: List[bool] = [False] * _CYCLIC_ENTRIES
        self._can = _CAN(self._host, self._index, timeout_ms, queue_size=queue_size)
        # Frames fetched in one batch and not yet handed out, oldest first.
        self._received: collections.deque = collections.deque()
        self._is_open = False
        try:
            self._call(self._can.connect)
            self._call(self._can.open)
            self._call(self._can.set_config, send_confirm, gateway_timestamps)
            if gateway_timestamps:
                valid, _, _ = self._call(self._can.get_time)
                if not valid:
                    now = time.time()
                    self._call(self._can.set_time, int(now), int((now % 1) * 1e6))
            if bitrate is not None:
                self._set_bitrate(int(bitrate))
            self._warn_canopen_mode()
        except Exception:
            self._can.close()
            raise
        self._is_open = True
        super().__init__(channel=channel, can_filters=can_filters, **kwargs)

    @staticmethod
    def _call(fn, *args):
        try:
            return fn(*args)
        except TarvikError as error:
            raise can.CanOperationError(str(error), error_code=error.code) from error

    def _warn_canopen_mode(self) -> None:
        # In CANopen mode the gateway hands ordinary frames over as CANopen events, never to this bus.
        if self._call(self._can.canopen_get_config) != 0:
            warnings.warn("%s: CANopen mode is on, so the gateway reports received frames as CANopen "
                          "events and this bus receives none; switch it off with "
                          "client.canopen_set_config(0) or `tarvik --host %s canopen mode off`"
                          % (self.channel_info, self._host), RuntimeWarning, stacklevel=3)

    def _set_bitrate(self, bitrate: int) -> None:
        settings = self._call(self._can.get_globals)
        settings["baudrate"] = bitrate
        self._call(lambda: self._can.set_globals(**settings))

    @property
    def client(self) -> _CAN:
        """The tarvik.CAN client underneath."""
        return self._can

    def send(self, msg: can.Message, timeout: Optional[float] = None) -> None:
        """Sends one frame. The library's time-out (timeout_ms) bounds the wait, not timeout."""
        if msg.is_error_frame:
            raise can.CanOperationError("the gateway does not send error frames")
        # A remote frame travels with as many (unused) data bytes as it requests.
        data = bytes(msg.data) if not msg.is_remote_frame else bytes(msg.dlc)
        self._call(self._can.write, msg.arbitration_id, data, _flags_of(msg))

    def _recv_internal(self, timeout: Optional[float]) -> Tuple[Optional[can.Message], bool]:
        if not self._received:
            # A wait without limit is a series of bounded ones, so that shutdown() can end it.
            while True:
                self._received.extend(self._can.get_messages(_RECV_BATCH, 1.0 if timeout is None else timeout))
                if self._received or timeout is not None or not self._is_open:
                    break
        if not self._received:
            return None, False
        identifier, data, flags, seconds, microseconds = self._received.popleft()
        if flags & FLAG_TIMESTAMP:
            stamp = seconds + microseconds / 1e6
        else:
            stamp = time.time()
        remote = bool(flags & FLAG_REMOTE)
        msg = can.Message(
            timestamp=stamp,
            arbitration_id=identifier,
            is_extended_id=bool(flags & FLAG_EXTENDED),
            is_remote_frame=remote,
            is_fd=bool(flags & FLAG_FD),
            # A remote frame's data bytes only carry its requested length.
            dlc=len(data),
            data=None if remote else data,
            channel=self.channel_info,
            check=False,
        )
        return msg, False

    def _acquire_cyclic(self) -> int:
        with self._cyclic_lock:
            for index, used in enumerate(self._cyclic_used):
                if not used:
                    self._cyclic_used[index] = True
                    return index
        raise can.CanOperationError("all %d cyclic message entries of the gateway are in use" % _CYCLIC_ENTRIES)

    def _release_cyclic(self, index: int) -> None:
        with self._cyclic_lock:
            self._cyclic_used[index] = False

    def _send_periodic_internal(self, msgs: Union[Sequence[can.Message], can.Message], period: float,
                                duration: Optional[float] = None) -> CyclicSendTaskABC:
        messages = [msgs] if isinstance(msgs, can.Message) else list(msgs)
        if len(messages) != 1 or duration is not None:
            # The gateway repeats one frame for ever: anything else is python-can's thread.
            return super()._send_periodic_internal(msgs, period, duration)
        index = self._acquire_cyclic()
        try:
            return TarvikCyclicSendTask(self, index, messages[0], period)
        except Exception:
            self._release_cyclic(index)
            raise

    def shutdown(self) -> None:
        """Stops the periodic sends, then the connection."""
        super().shutdown()
        self._is_open = False
        self._can.close()

    @staticmethod
    def _detect_available_configs():
        return []
