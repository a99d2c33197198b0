"""The digital I/O and the analog/digital gateway: outputs, inputs, converter channels."""

import tarvik
from _args import target

host, index = target()
with tarvik.DIO(host, index) as dio:
    dio.write(0x5A)
    inputs, outputs = dio.read()
    print("DIO inputs 0x%X outputs 0x%X" % (inputs, outputs))
with tarvik.AD(host, index) as ad:
    print("AD channels", ad.read())
    print("AD digital inputs", ad.read_digital_input())
