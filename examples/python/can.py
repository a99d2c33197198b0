"""Two CAN gateways on one bus: one sends, the other receives into its queue."""

import tarvik
from _args import target

host, index = target()
with tarvik.CAN(host, index) as sender, tarvik.CAN(host, index + 1, queue_size=16) as receiver:
    sender.write(0x123, bytes.fromhex("DEADBEEF"))
    sender.write(0x12345678, b"\x11\x22", tarvik.CAN_FLAG_EXTENDED)
    for _ in range(2):
        frame = receiver.get_message(timeout=2.0)
        if frame is None:
            print("nothing received")
            break
        can_id, data, flags, _, _ = frame
        print("received %X#%s flags %d" % (can_id, data.hex().upper(), flags))
