#!/bin/sh
# For each fault of a port, the one duty that the program tells broken; no other duty is.
# usage: faults.sh PROGRAM
set -eu
program=$1
failures=0

while read -r fault duty; do
    rc=0
    said=$(FAULT=$fault "$program" --no-speed --timeout 5 2>/dev/null) || rc=$?
    told=$(echo "$said" | awk '$1 == "broken" || $1 == "advised" {printf "%s%s", s, $2; s = " "}')
    expected_rc=1
    case $fault in none | zeros) expected_rc=0 ;; esac
    if [ "$told" != "$duty" ] || [ $rc != $expected_rc ]; then
        echo "fault $fault: told \"$told\" with code $rc, expected \"$duty\" with $expected_rc" >&2
        echo "$said" | grep -E '^(broken|advised)' >&2 || true
        failures=$((failures + 1))
    fi
done <<'END'
none
empty array.empty
size array.size
content array.content
address array.address
full array.full
count array.count
cursor array.cursor
damaged array.damaged
tree tree.empty
root tree.root
lookup tree.lookup
equal tree.equal
delete tree.delete
drain tree.drain
links tree.links
cost tree.cost
memory tree.memory
record converter.records
block converter.size
room converter.room
slot converter.failure
entries converter.damaged
field converter.field
iteration converter.iteration
plain transport.plain
parts transport.parts
copy transport.copy
token transport.token
response transport.response
errno transport.refusal
claim payload.array
aligned payload.aligned
tail payload.tail
zeros payload.zeros
record-length trace.record
names trace.names
heartbeat heartbeat.returns
message library.messages
END
exit $failures
