#!/bin/sh
# The daemon as a shell script tests it.
set -e
alarmd &
gw wait status alarmd/alarm off
gw input 1 1
gw wait output 1 1
gw wait status alarmd/alarm on
gw input 1 0
gw wait output 1 0
kill $!
wait $!
