# Addresses, times, sizes and the process table.
chapter "Addresses: texts, netmasks, prefix lengths"
show address_netcalc 192.168.1.77 24
show address_netcalc fe80::1:2:3:4 64
say "A prefix length that the family does not have, and a text that is no address, are refused:"
show address_netcalc 192.168.1.77 33
show address_netcalc 192.168.1.077 24

chapter "Times, sizes, rates"
say "A time stamp is read; a transfer of 100 MB that took 8.5 seconds is put into words."
show timefmt_transfer 104857600 "24-02-29 12:00:00"

chapter "Who called me? What is running?"
say "A program started through two shells still sees the program behind them."
show sh -c "sh -c 'process_whoami; true'; true"
say "The process table is read once and then only updated; two sleepers come, and one goes again."
sleepers=()
start_sleeper() { sleep 3015 & sleepers+=($!); }
stop_sleeper() { kill "${sleepers[0]}"; wait "${sleepers[0]}" 2>/dev/null; sleepers=("${sleepers[@]:1}"); }
watch_sleepers() {
  {
    sleep 0.1; start_sleeper; start_sleeper; sleep 0.1; echo
    sleep 0.1; stop_sleeper; echo
    sleep 0.1; stop_sleeper
  } | processcontrol_watch "sleep 3015"
}
show watch_sleepers
