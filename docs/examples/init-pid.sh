#!/bin/sh
# Prints the process id of an isolation zone's init.
#   usage: init-pid.sh ZONE
# The address is all the 108 bytes of sun_path, which few tools give; perl does.
exec perl -MSocket -e '
    socket(my $server, AF_UNIX, SOCK_STREAM, 0) or die "socket: $!\n";
    connect($server, pack("S a108", AF_UNIX, "\0zonemanager_socket")) or die "connect: $!\n";
    syswrite($server, $ARGV[0]) or die "write: $!\n";
    print <$server>, "\n";
' "$1"
