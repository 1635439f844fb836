#!/bin/bash
# The daemon, the simulated module and the client together on can0 (a vcan interface, given by
# scripts/vcan-vm): an upload reaches Done and the module's saved image holds exactly the hex file's
# bytes; a lost acknowledgement is repeated; a module that never erases fails with exit status 11.
# Usage: tools_e2e.sh VARNOCH VARNOCH-MODULE-SIM VARNOCH-FLASH
set -u
daemon=$1 sim=$2 client=$3
work=$(mktemp -d /tmp/varnoch-tools-e2e-XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
failures=0

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# 16 bytes at 0x3FF8 (across the 16 KiB page boundary) and 3 bytes at 0x4010: the image runs from
# 0x3FF8 to 0x4012, with 0x4008..0x400F never written.
cat >"$work/fw.hex" <<'HEX'
:10 3FF8 00 000102030405060708090A0B0C0D0E0F 41
:03401000A1B2C397
:00000001FF
HEX
sed -i 's/ //g' "$work/fw.hex"
printf '\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xA1\xB2\xC3' \
    >"$work/expected.bin"

# run_upload NAME PORT EXPECTED-EXIT CLIENT-ARGS... ; module options in $module_options
run_upload() {
    local name=$1 port=$2 expected=$3
    shift 3
    # shellcheck disable=SC2086
    timeout 60 "$sim" -i can0 --image "$work/$name.bin" $module_options >"$work/$name.sim.log" 2>&1 &
    local sim_pid=$!
    timeout 60 "$daemon" -n -i 0 -p "$port" >"$work/$name.daemon.log" 2>&1 &
    local daemon_pid=$!
    local status tries=0
    # The daemon listens once it has printed its start line; the client connects after that.
    until grep -q "Varnoch is running" "$work/$name.daemon.log" || [ $tries -ge 100 ]; do
        sleep 0.1
        tries=$((tries + 1))
    done
    timeout 60 "$client" --port "$port" upload "$work/fw.hex" "$@" >"$work/$name.client.log" 2>&1
    status=$?
    [ "$status" -eq "$expected" ] || fail "$name: client exit status $status, expected $expected"
    wait "$daemon_pid" || fail "$name: daemon exit status $?"
    kill -TERM "$sim_pid" 2>/dev/null
    wait "$sim_pid"
    status=$?
    [ "$status" -eq 0 ] || fail "$name: module exit status $status"
    echo "--- $name"
    cat "$work/$name.client.log" "$work/$name.sim.log"
}

module_options="--once --traffic 500"
run_upload plain 41881 0 --mode iso --address 0x26
cmp "$work/plain.bin" "$work/expected.bin" || fail "plain: image differs"
[ "$(cat "$work/plain.bin.range")" = "0x00003FF8 0x00004012" ] || fail "plain: range $(cat "$work/plain.bin.range")"

module_options="--once --drop-ack 3 --delay 20"
run_upload lost-ack 41882 0 --mode mtcan --identifier 0x12345678
cmp "$work/lost-ack.bin" "$work/expected.bin" || fail "lost-ack: image differs"

module_options="--no-erase"
run_upload no-erase 41883 11 --mode global

[ "$failures" -eq 0 ] && echo "all passed"
exit $((failures > 0))
