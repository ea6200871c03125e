#!/bin/sh
# Prints "ZONE STATE" for each state record until it is interrupted: LXC's own lxc-monitor is a subscriber.
lxc-monitor -n '.*' | sed -un "s/^'\(.*\)' changed state to \[\(.*\)\]\$/\1 \2/p"
