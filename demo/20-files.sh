# Files, commands, locks and the device log.
chapter "Status files: the old state or the new one, never a mixture"
say "A daemon replaces its status file 2000 times while a watcher reads it without a pause."
show file_status 2000
say "A script does it with vx: each value has two halves of 4000 characters, which are always the same."
publish() {
  local i
  for i in {1..25}; do vx status set demo/halves "$(printf '%04000d/%04000d' "$i" "$i")"; done
}
read_halves() {
  local writer value reads=0 mixed=0
  vx status set demo/halves start/start
  publish & writer=$!
  while kill -0 "$writer" 2>/dev/null; do
    value=$(vx status get demo/halves)
    reads=$((reads + 1))
    [ "${value%/*}" = "${value#*/}" ] || mixed=$((mixed + 1))
  done
  wait "$writer"
  [ "$reads" -gt 0 ] && echo "25 updates by a script, $mixed of the reads meanwhile got a mixture of two states"
}
source_of publish
show read_halves

chapter "Commands: in the foreground, detached, with a time-out, and for their output"
show vx run -- sh -c 'exit 3'
say "A command that takes too long is ended:"
show vx run --timeout 0.2 -- sleep 60
say "Detached: a process of its own, whose id the caller learns and whose end it does not wait for."
show vx run --detach -- sh -c 'echo "process $$, child of $PPID" >/tmp/detached.txt'
until [ -s /tmp/detached.txt ]; do sleep 0.01; done
show cat /tmp/detached.txt
say "A program in C runs commands and splits command lines with the library. It trusts the output only of a command that succeeds."
show command_run read 'uname -m'
show command_run read 'echo text; exit 1'
show command_run split "set wan.0.apn 'my provider' \"it's quoted\""
say "Two scripts change the packet filter's rules, each in two steps. The lock keeps the steps of each together."
echo 0 >/tmp/rules
change_rules() {
  local i
  for i in {1..20}; do vx lock --firewall -- sh -c 'read n </tmp/rules; echo $((n + 1)) >/tmp/rules'; done
}
two_scripts() {
  change_rules & local first=$!
  change_rules
  wait "$first"
  echo "$(cat /tmp/rules) of 40 changes were made in one piece"
}
source_of change_rules
show two_scripts

chapter "The device log: 35 entries written, the newest 33 kept"
[ -e /etc/fstab ] || touch /etc/fstab  # the log names its semaphore after it
for i in $(seq 35); do vx log add 3 "event number $i"; done
show vx log show
