#!/bin/sh
# demo.sh RUNNER: lets two example programs talk over a lossy link of the example simulation. Ends by itself.
set -eu

cd "$(dirname "$0")/.."
runner=$1
simulation=examples/lossy-link.ltvo
frames=500
export PYTHONPATH=client/python # the kit that the examples are built on
work=$(mktemp -d)
pids=""

clean_up()
{
    # shellcheck disable=SC2086  # one word a process
    [ -z "$pids" ] || kill $pids 2>/dev/null || true
    rm -rf "$work"
}
trap clean_up EXIT

wait_for_port()
{
    for _ in $(seq 100); do
        port=$(sed -n 's/^listening on port //p' "$work/runner.out")
        [ -z "$port" ] || return 0
        sleep 0.1
    done
    echo "the simulator did not start" >&2
    exit 1
}

"$runner" "$simulation" --listen 0 --seed 1 --capture "$work/demo.pcap" --report "$work/report.json" \
    --wait-for Sender,Receiver --duration 50 >"$work/runner.out" &
runner_pid=$!
pids="$runner_pid"
wait_for_port
echo "The simulator runs $simulation, listening on port $port."
echo "Link: 99.99 % of the bits arrive unchanged, 90 % of the corrupted frames are detected, 3 to 6 ms delay."

python3 -B examples/receiver.py --port "$port" --address 020000000002 --expect $frames --idle 3 \
    >"$work/receiver.out" &
receiver_pid=$!
pids="$pids $receiver_pid"
sleep 1 # a sender that comes first would send to a node without a program
echo
echo "== sender.py: $frames numbered frames of 64 bytes =="
python3 -B examples/sender.py --port "$port" --address 020000000001 --destination 020000000002 --count $frames
wait "$receiver_pid"
echo
echo "== receiver.py =="
cat "$work/receiver.out"

kill -TERM "$runner_pid"
wait "$runner_pid"
pids=""
echo
echo "== The simulator's report =="
cat "$work/report.json"
echo
echo "== The first and last frames of the dump, as a packet analyser lists them =="
# The two lengths of a record differ by two, on purpose. An analyser may complain, but it lists them all.
tshark -r "$work/demo.pcap" -T fields -e frame.number -e frame.time_delta -e frame.cap_len -e frame.len \
    -E header=y >"$work/frames.txt" 2>"$work/tshark.err" || cat "$work/tshark.err"
head -n 6 "$work/frames.txt"
echo "..."
tail -n 3 "$work/frames.txt"
