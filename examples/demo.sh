#!/usr/bin/env bash
# A short tour: the tarvik tool against the simulator inside its own process (--sim), then the
# C examples against a tarvik-sim server on 127.0.0.1.
#
#   bash examples/demo.sh BUILDDIR
set -euo pipefail

build=${1:?usage: demo.sh BUILDDIR}
build=$(cd "$build" && pwd)
tarvik=$build/tools/tarvik
sim=$build/sim/tarvik-sim
spi_demo=$build/examples/spi_demo
eeprom_demo=$build/examples/eeprom_demo
can_demo=$build/examples/can_demo
for program in "$tarvik" "$sim" "$spi_demo" "$eeprom_demo" "$can_demo"; do
    if [ ! -x "$program" ]; then
        echo "demo.sh: $program is not built" >&2
        exit 1
    fi
done

# Shows the command as a user would type it, then runs it.
step() {
    local shown arg
    shown=$(basename "$1")
    for arg in "${@:2}"; do
        case $arg in
            *" "*) shown+=" \"$arg\"" ;;
            *) shown+=" $arg" ;;
        esac
    done
    echo
    echo "\$ $shown"
    "$@"
}

echo "== the tarvik tool; a device command needs --host (or TARVIK_HOST), or --sim for its own simulator"
step "$tarvik" info || echo "(exit code $?)"
step "$tarvik" --sim info
step "$tarvik" --sim --json status
# One process, so one simulated EEPROM: write enable, write 4 bytes at 0x0040, read them back.
step "$tarvik" --sim spi xfer 06 "02 0040 CAFE1234" 030040+4
step "$tarvik" --sim --trace spi globals
step "$tarvik" errcode 0x0330
step "$tarvik" --sim ping -n 100

echo
echo "== memory images: a boot block in Intel HEX and an application in S-records, joined"
# A scratch copy, so that the merged file does not land in the source tree.
work=$(mktemp -d)
cp "$(dirname "$0")"/images/boot.hex "$(dirname "$0")"/images/app.s19 "$work"
cd "$work"
step "$tarvik" hex info boot.hex
step "$tarvik" hex info app.s19
step "$tarvik" hex merge boot.hex app.s19 --no-overlap -o firmware.hex
step "$tarvik" hex info firmware.hex
step "$tarvik" hex dump firmware.hex
# The CRC-32 of the whole range with the gap filled by 0xFF, as a programmer would see it.
step "$tarvik" hex crc firmware.hex --fill 0xFF

echo
echo "== programming: the image, padded to 64 KiB, into an AWire target (tarvik-sim, port index 8)"
# The target programs 64 KiB a second here, so that the progress bar has something to show.
aw_pid=
"$sim" --host 127.0.0.1 --devices awire --index 8 --awire-rate 65536 &
aw_pid=$!
aw=("$tarvik" --host 127.0.0.1 --port-index 8)
for _ in $(seq 50); do "${aw[@]}" awire config >/dev/null 2>&1 && break; sleep 0.1; done
step "$tarvik" hex fill firmware.hex --from 0 --to 0xFFFF --byte 0xFF -o image.hex
step "${aw[@]}" awire config
step "${aw[@]}" awire erase
step "${aw[@]}" awire write-file image.hex
# One digit of line 3 changed: its checksum no longer fits, so the file is refused with the
# line named, and nothing is sent to the target.
sed '3{s/^\(.\{11\}\)F/\10/;t;s/^\(.\{11\}\)./\1F/}' image.hex >damaged.hex
step "${aw[@]}" awire write-file damaged.hex || echo "(exit $?: refused, nothing was sent)"
step "${aw[@]}" awire read 0x100 16
kill "$aw_pid" 2>/dev/null || true
wait "$aw_pid" 2>/dev/null || true
cd - >/dev/null
rm -rf "$work"

echo
echo "== a test system: tarvik-sim with a communication unit and a relay unit at port index 7"
ts_pid=
"$sim" --host 127.0.0.1 --devices tscom,tsrelay --index 7 &
ts_pid=$!
ts_cfg=$(mktemp)
printf 'station 4: flash, test, label\n' >"$ts_cfg"
ts=("$tarvik" --host 127.0.0.1 --port-index 7)
for _ in $(seq 50); do "${ts[@]}" testsys config >/dev/null 2>&1 && break; sleep 0.1; done
# Uploaded and activated; a second install of the same file skips the upload (same CRC).
step "${ts[@]}" testsys install station4 "$ts_cfg"
step "${ts[@]}" testsys available station4
step "${ts[@]}" testsys config
step "${ts[@]}" testsys relay 2 on
step "${ts[@]}" testsys button 0
step "${ts[@]}" testsys relay 2 off
kill "$ts_pid" 2>/dev/null || true
wait "$ts_pid" 2>/dev/null || true
rm -f "$ts_cfg"

echo
echo "== a CAN bus: tarvik-sim with two CAN gateways (port indices 5 and 6) and CANopen nodes 2 and 3"
can_pid=
"$sim" --host 127.0.0.1 --devices can:2 --index 5 &
can_pid=$!
can0=("$tarvik" --host 127.0.0.1 --port-index 5)
can1=("$tarvik" --host 127.0.0.1 --port-index 6)
for _ in $(seq 50); do "${can1[@]}" can status >/dev/null 2>&1 && break; sleep 0.1; done
# candump on one gateway while the other sends, in cansend's syntax.
echo
echo "\$ tarvik ${can1[*]:1} can dump -n 3 &"
"${can1[@]}" can dump -n 3 &
dump_pid=$!
sleep 0.5
step "${can0[@]}" can send 123#DEADBEEF 12345678#11.22 7FF##1AABBCCDD
wait "$dump_pid"
step "${can0[@]}" can status
step "${can0[@]}" canopen mode on
step "${can0[@]}" canopen sdo-read 2 0x1018 1
step "${can0[@]}" canopen sdo-write 2 0x2001 0 0x1234 --size 2
step "${can0[@]}" canopen sdo-read 2 0x2001 0
# A value with the high bit set comes back as it was written, and a node's abort says why.
step "${can0[@]}" canopen sdo-write 2 0x2002 0 0x80808080
step "${can0[@]}" canopen sdo-read 2 0x2002 0
step "${can0[@]}" canopen sdo-read 2 0x3000 0 || true
kill "$can_pid" 2>/dev/null || true
wait "$can_pid" 2>/dev/null || true

echo
echo "== the C examples against tarvik-sim: SPI on 127.0.0.1:5002, I2C on 127.0.0.1:5000,"
echo "   two CAN gateways on one bus at 127.0.0.1:5001 and :5101"
sim_pid=
stop_sim() {
    if [ -n "$sim_pid" ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
}
trap stop_sim EXIT

"$sim" --host 127.0.0.1 --devices spi,i2c,can:2 &
sim_pid=$!
# Wait for a port (bash's /dev/tcp), at most 5 s.
wait_for_port() {
    for _ in $(seq 50); do
        if (exec 3<>/dev/tcp/127.0.0.1/"$1") 2>/dev/null; then
            return 0
        fi
        kill -0 "$sim_pid" 2>/dev/null || return 1
        sleep 0.1
    done
    return 1
}
for port in 5002 5000 5001 5101; do
    if ! wait_for_port "$port"; then
        echo "demo.sh: tarvik-sim does not listen on 127.0.0.1:$port (port taken?)" >&2
        exit 1
    fi
done
step "$spi_demo" 127.0.0.1
step "$eeprom_demo" 127.0.0.1
step "$can_demo" 127.0.0.1
stop_sim
sim_pid=

echo
echo "== the Python examples against tarvik-sim: every family at port index 10 (CAN at 10 and 11)"
python=/usr/bin/python3
if [ ! -f "$build"/python/tarvik/__init__.py ] || ! ls "$build"/python/tarvik/_tarvik*.so >/dev/null 2>&1; then
    echo "(skipped: the Python module is not built; configure with -DTARVIK_BUILD_PYTHON=ON)"
    exit 0
fi
"$sim" --host 127.0.0.1 --devices spi,i2c,can:2,dio,ad,renesas,firmware,awire,tsio,tspwr,tscom,tsrelay --index 10 \
    --can-nodes "" &
sim_pid=$!
# Port index 10: 4999 + device type + 1000; the relay unit (type 17) is the last to listen.
for port in 6002 6000 6001 6101 6016; do
    if ! wait_for_port "$port"; then
        echo "demo.sh: tarvik-sim does not listen on 127.0.0.1:$port (port taken?)" >&2
        exit 1
    fi
done
examples=$(cd "$(dirname "$0")" && pwd)/python
for example in spi eeprom can awire renesas firmware testsys dio_ad hexfile; do
    echo
    echo "\$ python3 examples/python/$example.py 127.0.0.1 10"
    PYTHONPATH=$build/python "$python" "$examples/$example.py" 127.0.0.1 10
done
