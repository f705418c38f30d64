# Files, commands, locks and the device log.
chapter "Status files: the old state or the new one, never a mixture"
say "A daemon replaces its status file 2000 times while a watcher reads it without a pause."
show file_status 2000

chapter "Commands: in the foreground, detached, and for their output"
show command_run wait 'exit 3'
say "Detached: a process of its own, whose id the caller learns and whose end it does not wait for."
show command_run detach 'echo "process $$, child of $PPID" >/tmp/detached.txt'
until [ -s /tmp/detached.txt ]; do sleep 0.01; done
show cat /tmp/detached.txt
say "Output is trusted only from a command that succeeds."
show command_run read 'uname -m'
show command_run read 'echo text; exit 1'
show command_run split "set wan.0.apn 'my provider' \"it's quoted\""
say "Two processes change the packet filter's rules; the lock keeps the steps of each together."
show lock_rules

chapter "The device log: 35 entries written, the newest 33 kept"
[ -e /etc/fstab ] || touch /etc/fstab  # the log names its semaphore after it
for i in $(seq 35); do qxlog_note 3 "event number $i"; done
show qxlog_note
