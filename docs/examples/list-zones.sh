#!/bin/sh
# Lists all containers with the state that the bus tells, with gdbus.
# -1: a protection zone, or no zone at all.
set -eu

call() {
    method=$1
    shift
    gdbus call --system --dest org.ornix.zoneframework --object-path /org/ornix/zoneframework \
        --method "org.ornix.zoneframework.interface.$method" "$@"
}

# (['blue', 'red'],) or (@as [],)
for zone in $(call GetZoneList | sed "s/@as//; s/[][(),']/ /g"); do
    state=$(call ZoneGetState "$zone") # (3,)
    state=${state#(}
    echo "$zone ${state%,)}"
done
