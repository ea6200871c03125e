#!/bin/sh
# Prints "ZONE STATE" for each state-change signal until it is interrupted, with gdbus. Any user may.
gdbus monitor --system --dest org.ornix.zoneframework --object-path /org/ornix/zoneframework |
    sed -un "s/.*\.ZoneStateChangedSignal ('\(.*\)', '\(.*\)')\$/\1 \2/p"
