#!/bin/sh
# Starts a zone and waits until it runs, with busctl.
#   usage: start-zone.sh ZONE
set -eu
zone=$1

call() {
    busctl --system call org.ornix.zoneframework /org/ornix/zoneframework \
        org.ornix.zoneframework.interface "$@"
}

state=$(call ZoneGetState s "$zone")
if [ "$state" = "i -1" ]; then
    echo "$zone is not a zone that may be controlled over the bus" >&2
    exit 1
fi
# A true reply says that the request is queued. The zone's thread finds it within three seconds.
if [ "$(call ZoneStart s "$zone")" != "b true" ]; then
    echo "the request was not taken" >&2
    exit 1
fi
tries=60
while [ "$(call ZoneGetState s "$zone")" != "i 3" ]; do
    tries=$((tries - 1))
    if [ "$tries" -eq 0 ]; then
        echo "$zone does not run after 30 seconds" >&2
        exit 1
    fi
    sleep 0.5
done
echo "$zone runs"
