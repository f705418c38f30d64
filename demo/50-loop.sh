# A daemon's main loop, its threads, its events, its locks.
chapter "Event loop, message queue, events, locks"
say "A plain loop: a periodic timer, a descriptor, a deadline."
show eventsource
say "Worker threads hand their results to the loop; a sender never waits for it."
show messagequeue

say "Now a whole daemon. The event manager listens at its FIFO, two scripts subscribe over ZeroMQ with vx event listen, and a third holds the modem's lock with vx lock, until it is killed."
loop_in=$(mktemp -u) && mkfifo "$loop_in" && exec 8<>"$loop_in"
eventmanager <&8 | sed -u 's/^/      [eventmanager] /' &
loop_manager=$!
until [ -p /tmp/status/event-manager/throw ]; do sleep 0.01; done
vx event listen --count 6 | sed -u 's/^/      [first] /' &
loop_first=$!
vx event listen --count 6 | sed -u 's/^/      [second] /' &
loop_second=$!
until [ "$(vx proc count 'vx event listen')" -eq 2 ]; do sleep 0.01; done
vx lock modem0 -- sh -c ': >/tmp/modem0.taken; exec sleep 60' &
loop_holder=$!
until [ -e /tmp/modem0.taken ]; do sleep 0.01; done
sleep 0.2
printf '  $ loop_daemon & sleep 0.7; kill -KILL %d\n' "$loop_holder"
loop_daemon | sed -u 's/^/      /' &
loop_daemon=$!
sleep 0.7
say "      ... the daemon waits for the lock; now its owner is killed ..."
kill -KILL "$loop_holder"
if { wait "$loop_holder"; } 2>/dev/null; then say "the holder has survived"; fi
wait "$loop_daemon" "$loop_first" "$loop_second"
show vx event raise 99 0 "raised by hand"
echo quit >&8
exec 8>&-
wait "$loop_manager"
rm -f "$loop_in"
