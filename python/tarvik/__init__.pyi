"""Python bindings of the tarvik gateway client library."""

from typing import Any, Callable, Dict, List, Optional, Tuple, Union, overload

__version__: str

CAN_FLAG_EXTENDED: int
CAN_FLAG_REMOTE: int
CAN_FLAG_TIMESTAMP: int
CAN_FLAG_FD: int

class TarvikError(Exception):
    """A device operation failed: `code` is the library's result code, `message` its text."""
    code: int
    message: str
    def __init__(self, code: int, message: str) -> None: ...

class SdoAbortError(TarvikError):
    """A CANopen node aborted an SDO transfer: `abort_code` is its 32-bit SDO abort code,
    `abort_text` the code's standard meaning (0x06020000: "object does not exist"), `node`
    the node; `code` is the gateway's result (0x0002FD)."""
    abort_code: int
    abort_text: str
    node: int
    def __init__(self, code: int, message: str, abort_code: int, abort_text: str, node: int) -> None: ...

def error_message(code: int) -> str:
    """The library's text for a result code."""

class _Client:
    """What every client class shares. Blocking calls release the GIL."""
    def __init__(self, host: str = "127.0.0.1", port_index: int = 0, timeout_ms: int = 1000,
                 port: Optional[int] = None) -> None:
        """Creates the client; the port is 4999 + device type + 100 * port_index unless given."""
    def connect(self) -> None:
        """Connects to the gateway; raises TarvikError on failure."""
    def open(self) -> None:
        """Prepares the device after connecting (the context manager does this)."""
    def close(self) -> None:
        """Stops the connection; no callback runs after it returns."""
    def info(self) -> Dict[str, object]:
        """The 20-byte information record: {'raw': bytes, 'device_type': int}."""
    def status(self) -> str:
        """The device's status text."""
    def restart(self) -> None:
        """Restarts the device."""
    @property
    def connected(self) -> bool: ...
    @property
    def host(self) -> str: ...
    @property
    def port_index(self) -> int: ...
    @property
    def port(self) -> int: ...
    def __enter__(self): ...
    def __exit__(self, *exc: object) -> bool: ...

class DIO(_Client):
    """A digital I/O gateway."""
    def read(self) -> Tuple[int, int]:
        """(inputs, outputs) as bit masks."""
    def write(self, outputs: int) -> None:
        """Sets the outputs (bit mask)."""

class CAN(_Client):
    """A CAN gateway: frames, configuration, cyclic messages, CANopen master services.

    Received telegrams go to a callback (on_frame, on_pdo, ...) or, with a queue size > 0,
    into receive queues read by get_message(), get_pdo(), ...; without either they are dropped.
    Callbacks run on the receive thread; an exception they raise is reported and reception goes on.
    """
    def __init__(self, host: str = "127.0.0.1", port_index: int = 0, timeout_ms: int = 1000,
                 port: Optional[int] = None, queue_size: int = 0) -> None: ...
    def set_config(self, send_confirm: bool, timestamps: bool = False) -> None:
        """send_confirm: write() waits for the gateway's confirmation; timestamps: frames carry the gateway's time."""
    def get_config(self) -> Tuple[bool, bool]: ...
    def set_filter(self, words: List[int]) -> None:
        """16 words, eight (code, mask) pairs."""
    def get_filter(self) -> List[int]: ...
    def set_globals(self, baudrate: int, setting: int = 0, flag1: bool = False, flag2: bool = False,
                    flag3: bool = False, option1: bool = False, option_value: int = 0,
                    option2: bool = False) -> None: ...
    def get_globals(self) -> Dict[str, int]: ...
    def set_time(self, seconds: int, microseconds: int = 0) -> None: ...
    def get_time(self) -> Tuple[bool, int, int]:
        """(valid, seconds, microseconds) of the gateway's clock."""
    def get_power_status(self) -> Dict[str, object]: ...
    def set_power_relais(self, on: bool) -> None: ...
    def set_active_power_supplies(self, mask: int) -> None: ...
    def set_zcard_parameter(self, p1: int, p2: int, p3: int) -> None: ...
    def get_zcard_parameter(self) -> Tuple[int, int, int]: ...
    def write(self, id: int, data: bytes = b"", flags: int = 0) -> Tuple[int, int]:
        """Sends one frame; returns (seconds, microseconds) of its transmission. A remote frame
        (flags 0x02) carries as many unused data bytes as it requests."""
    def set_cyclic_message(self, index: int, enable: bool, interval_ms: int = 0, id: int = 0,
                           data: bytes = b"", flags: int = 0) -> None: ...
    def start_alive(self, seconds: int) -> None: ...
    def set_queue_size(self, n: int) -> None: ...
    def get_message(self, timeout: Optional[float] = None) -> Optional[Tuple[int, bytes, int, int, int]]:
        """(id, data, flags, seconds, microseconds) or None after timeout seconds (None: no wait);
        a remote frame's data length is its requested length."""
    def get_messages(self, max: int = 256, timeout: Optional[float] = None) -> List[Tuple[int, bytes, int, int, int]]:
        """Up to max of the oldest frames at once, as get_message gives each, waiting up to
        timeout seconds (None: no wait) for the first; [] when none came."""
    def get_pdo(self, timeout: Optional[float] = None) -> Optional[Tuple[int, int, bytes]]: ...
    def get_sync(self, timeout: Optional[float] = None) -> Optional[int]: ...
    def get_emcy(self, timeout: Optional[float] = None) -> Optional[Tuple[int, int, int, bytes]]: ...
    def get_guard(self, timeout: Optional[float] = None) -> Optional[Tuple[int, int]]: ...
    def get_undefined(self, timeout: Optional[float] = None) -> Optional[Tuple[int, bytes, int, int]]: ...
    def drop_counts(self) -> Dict[str, Dict[str, int]]:
        """Telegrams dropped on arrival per kind ('can', 'pdo', 'sync', 'emcy', 'guard',
        'undefined'): {'queues_off', 'queue_full', 'too_long', 'too_short'}."""
    def on_frame(self, callback: Optional[Callable[[int, bytes, int, int, int], object]]) -> None: ...
    def on_pdo(self, callback: Optional[Callable[[int, int, bytes], object]]) -> None: ...
    def on_sync(self, callback: Optional[Callable[[int], object]]) -> None: ...
    def on_emcy(self, callback: Optional[Callable[[int, int, int, bytes], object]]) -> None:
        """callback(node, error_code, error_register, data); error_code read unsigned, low byte first."""
    def on_guard(self, callback: Optional[Callable[[int, int], object]]) -> None: ...
    def on_undefined(self, callback: Optional[Callable[[int, bytes, int, int], object]]) -> None: ...
    def canopen_set_config(self, mode: int) -> None: ...
    def canopen_get_config(self) -> int: ...
    def sync_mode(self, mode: int) -> None: ...
    def nmt(self, node: int, command: int) -> None: ...
    def sync(self) -> None: ...
    def time(self, days: int, milliseconds: int) -> None: ...
    def pdo(self, selector1: int, selector2: int, data: bytes) -> None: ...
    def sdo_read(self, node: int, index: int, subindex: int, timeout_ms: int = 1000) -> int:
        """The value's bytes as received, read as an unsigned little-endian number.
        SdoAbortError when the node aborts; TarvikError 0x0002FC naming the node when it
        does not answer, 0x0002FE when CANopen mode is off."""
    def sdo_read_sized(self, node: int, index: int, subindex: int, timeout_ms: int = 1000) -> Tuple[int, int]:
        """As sdo_read: (value, number of bytes received)."""
    def sdo_write(self, node: int, index: int, subindex: int, value: int, size: int = 4,
                  timeout_ms: int = 1000) -> None:
        """Writes size (1..4) bytes; ValueError for a value that does not fit. SdoAbortError when the node aborts."""
    def sdo_read_block(self, node: int, index: int, subindex: int, timeout_ms: int = 1000) -> bytes:
        """Every byte of the object. SdoAbortError when the node aborts."""
    def sdo_write_block(self, node: int, index: int, subindex: int, data: bytes,
                        timeout_ms: int = 1000) -> None:
        """SdoAbortError when the node aborts."""

class SPI(_Client):
    """An SPI gateway: bus settings, full-duplex transfers, sequences."""
    def set_globals(self, rate: int, setting1: int = 0, setting2: int = 0, setting3: int = 0) -> None:
        """Sets the bus rate and the three setting bytes of the gateway."""
    def get_globals(self) -> Tuple[int, int, int, int]:
        """(rate, setting1, setting2, setting3)."""
    def transfer(self, data: bytes, recv_len: Optional[int] = None) -> bytes:
        """Clocks out data (zero-padded to recv_len when larger); returns the recv_len bytes clocked in."""
    def sequence(self, sequence: bytes, out_len: int) -> bytes:
        """Runs a sequence and returns out_len bytes of its answer from the result byte on."""
    def sequence_start(self, sequence: bytes) -> int:
        """Starts a sequence without waiting; returns the id for sequence_result()."""
    def sequence_result(self, id: int, out_len: int) -> bytes:
        """Waits for a started sequence: out_len bytes after its result byte."""
    def read_digital(self) -> Tuple[int, int]:
        """(inputs, outputs) of the digital lines as bit masks."""
    def write_digital(self, outputs: int) -> None:
        """Sets the digital outputs (bit mask)."""
    @staticmethod
    def to_offset(offset: int, format: int) -> bytes:
        """The format (1..4) low bytes of an EEPROM offset, most significant first."""
    @staticmethod
    def eeprom_slave_address(sub_address: int, offset: int, flags: int) -> int:
        """Slave address of an EEPROM whose high offset bits ride in the address."""

class I2C(_Client):
    """An I2C gateway: bus master, bit-level mode, sequences and 24Cxx EEPROMs.

    EEPROM type word: bits 0-7 memory-address bits, bits 8-9 high address bits carried in the
    slave address, bit 10 those above the chip-select bits.
    """
    def set_baudrate(self, rate: int) -> None:
        """100 and 400 are kHz; any other value is bits per second."""
    def get_baudrate(self) -> int: ...
    @property
    def current_baudrate(self) -> int:
        """The rate last set or read (100000 after construction)."""
    def reset(self) -> None: ...
    def read_digital(self) -> Tuple[int, int]: ...
    def write_digital(self, outputs: int) -> None: ...
    def read(self, slave: int, length: int) -> bytes:
        """Reads up to length bytes from a slave; returns the bytes received."""
    def write(self, slave: int, data: bytes) -> None:
        """Writes data to a slave; a failure's TarvikError carries error_pos."""
    def raw_start(self) -> None: ...
    def raw_send(self, byte: int, flags: int = 0) -> None: ...
    def raw_get(self, flags: int = 0) -> int: ...
    def raw_stop(self) -> None: ...
    def write_sequence(self, sequence: bytes, read_len: int) -> bytes:
        """A sequence in the device's own encoding; returns the bytes read (TarvikError carries error_pos)."""
    def sequence(self, steps: List[Tuple[int, Union[bytes, int]]]) -> List[bytes]:
        """Steps (address_byte, bytes) to write or (address_byte | 1, length) to read; returns the reads."""
    def write_eeprom(self, device_select: int, offset: int, eeprom_type: int, data: bytes,
                     poll_time: Optional[int] = None) -> None:
        """Writes data at offset in one request (keep it in one page); poll_time: then poll for the acknowledge."""
    def read_eeprom(self, device_select: int, offset: int, eeprom_type: int, length: int) -> bytes: ...
    @staticmethod
    def to_offset(offset: int, eeprom_type: int) -> bytes: ...
    @staticmethod
    def eeprom_slave_address(device_select: int, offset: int, eeprom_type: int) -> int: ...
    @staticmethod
    def address_byte_count(eeprom_type: int) -> int: ...

class AD(_Client):
    """An analog/digital gateway: digital words and converter channels."""
    def read_digital(self) -> Tuple[int, int]: ...
    def write_digital(self, outputs: int) -> None: ...
    def read_digital_input(self) -> Tuple[int, int, int]:
        """The input word's three low bytes."""
    def read(self) -> List[int]:
        """The converter values, one per channel."""

class Renesas(_Client):
    """Programs a Renesas microcontroller's flash: init(), check_id(), pages, complete()."""
    def init(self) -> None: ...
    def check_id(self, id: bytes) -> None:
        """Sends 7 ID bytes; TarvikError 0x0921 when they are wrong."""
    def set_baudrate(self, code: int) -> None: ...
    def get_version(self) -> str: ...
    def complete(self) -> None: ...
    def read_page(self, page: int, length: int = 256) -> bytes: ...
    def write_page(self, page: int, data: bytes) -> None:
        """Programs one 256-byte page: shorter data is padded with 0x00, longer cut."""
    def erase_all(self) -> None: ...
    def block_erase(self, block: int) -> None: ...
    def verify_check(self, first: int, second: int) -> int:
        """The gateway's checksum over the range."""
    def read_digital(self) -> Tuple[int, int]: ...
    def write_digital(self, outputs: int) -> None: ...

class Firmware(_Client):
    """The service side of any gateway (port 5099 + 100 * port_index)."""
    BLOCK_SIZE: int
    def clear_flash(self) -> None: ...
    def read_flash(self, block: int) -> bytes:
        """One 2048-byte block of the firmware flash."""
    def write_flash(self, block: int, data: bytes) -> None:
        """Writes one block of exactly 2048 bytes."""
    def get_eeprom_info(self) -> int: ...
    def read_eeprom(self, address: int, length: int) -> bytes: ...
    def write_eeprom(self, address: int, data: bytes) -> None: ...
    def get_info(self) -> Dict[str, Any]:
        """The extended device information, with sw_version_string and hw_version_string."""
    def set_info(self, info: Dict[str, Any]) -> None:
        """Rewrites the information image; fields absent from info are 0."""
    @staticmethod
    def swablong(value: int) -> int: ...

class AWire(_Client):
    """Programs a microcontroller through its aWire interface."""
    def set_config(self, value1: int, value2: int, page_size: int, value4: int, text: str = "") -> None: ...
    def get_config(self) -> Tuple[int, int, int, int, bytes]:
        """(value1, value2, page_size, value4, text)."""
    @property
    def page_size(self) -> int: ...
    def read(self, address: int, length: int) -> bytes: ...
    def verify(self, address: int, data: bytes) -> bool:
        """True when the target holds data at address, False when it differs."""
    def erase(self, value: int = 0) -> None: ...
    def erase_user_page(self) -> None: ...
    def write_block(self, address: int, data: bytes) -> int:
        """Sends a block without waiting; returns the handle for write_block_status()."""
    def write_user_page(self, address: int, data: bytes) -> int: ...
    def write_block_status(self, handle: int) -> Tuple[int, int, int]:
        """(state, length, done): state 0 finished (reported once), 1 in progress, else a failure."""
    def write_file(self, path: str, format: str = "detect", lenient: bool = False) -> None:
        """Checks the file as Hexfile.load() does (ValueError, nothing sent, unless lenient), then
        starts writing and comparing it in the background."""
    def write_image(self, image: "Hexfile") -> None:
        """The same for a Hexfile that is loaded already."""
    def write_file_failure(self) -> Tuple[int, int, int]:
        """(cause, result, address) of the last file write that failed: 1 image, 2 send, 3 block
        failed, 4 read back failed, 5 the target differs."""
    def write_file_status(self) -> Tuple[int, int]:
        """(step, percent): 1 writing, 2 verifying, 3 done, -1 failed; the end is reported once."""

class TestSystemCOM(_Client):
    """The communication unit of a test system: named configurations."""
    def set_config(self, name: str) -> None: ...
    def get_config(self) -> str: ...
    def is_config_available(self, name: str) -> Tuple[bool, int]:
        """(available, crc)."""
    def send_file(self, path: str, crc: int = 0) -> None: ...
    def install_config(self, name: str, path: str) -> None:
        """Uploads the file unless the unit holds it with the same CRC, then installs and starts it."""
    @staticmethod
    def file_name(path: str) -> str: ...
    @staticmethod
    def crc32(path: str) -> int: ...

class TestSystemIO(_Client):
    """The IO unit of a test system: value words and power channels."""
    def set_value(self, words: List[int]) -> None: ...
    def get_value(self, count: int) -> List[int]: ...
    def set_power(self, words: List[int]) -> None: ...
    def get_power(self, count: int) -> List[int]: ...

class TestSystemPWR(_Client):
    """The power unit of a test system: value words."""
    def set_value(self, words: List[int]) -> None: ...
    def get_value(self, count: int) -> List[int]: ...

class TestSystemRelay(_Client):
    """The relay unit of a test system: relays, power channels, push-buttons."""
    def set_relay(self, relay: int, on: bool) -> None: ...
    def get_button(self, button: int) -> bool: ...
    def set_power(self, words: List[int]) -> None: ...
    def get_power(self, count: int) -> List[int]: ...

class Hexfile:
    """A memory image: blocks of bytes at 32-bit addresses (Intel HEX, S-records, binary)."""
    @overload
    def __init__(self) -> None: ...
    @overload
    def __init__(self, path: str, format: str = "detect", lenient: bool = False) -> None: ...
    def load(self, path: str, format: str = "detect", lenient: bool = False) -> None:
        """Replaces the image by a file's, every record checked. OSError: cannot read; ValueError
        naming file:line and each problem (lenient=True: UserWarnings, the image as it is)."""
    def save(self, path: str, format: str = "intel") -> None:
        """intel, motorola or binary (one block at 0 only)."""
    @property
    def filename(self) -> str: ...
    @property
    def format(self) -> str: ...
    @property
    def total_bytes(self) -> int: ...
    def __len__(self) -> int: ...
    def blocks(self) -> List[Tuple[int, bytes]]:
        """[(address, bytes), ...] in address order."""
    def add(self, address: int, data: bytes) -> None:
        """Adds a block as it is; keep blocks from overlapping."""
    def clear(self) -> None: ...
    def bounds(self) -> Optional[Tuple[int, int]]: ...
    def __getitem__(self, address: int) -> int: ...
    def __setitem__(self, address: int, value: int) -> None: ...
    def dump(self, bytes_per_line: int = 16) -> str: ...
    def crop(self, first: int, last: int) -> "Hexfile": ...
    def fill(self, first: int, last: int, byte: int = 0xFF) -> "Hexfile": ...
    def offset(self, delta: int) -> "Hexfile": ...
    @staticmethod
    def merge(images: List["Hexfile"]) -> "Hexfile":
        """Where images overlap, the later one's byte wins."""
    def crc32(self) -> int: ...
    def range_crc32(self, first: int, last: int, fill: int = 0xFF) -> int: ...
    def compare(self, other: "Hexfile", keep: int = 16) -> Tuple[int, List[Tuple[int, int, int]]]:
        """(count, first differences as (address, byte_a, byte_b)); a missing byte is -1."""
