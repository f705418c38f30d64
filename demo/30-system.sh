# Addresses, times, sizes and the process table.
chapter "Addresses: texts, netmasks, prefix lengths"
show vx addr 192.168.1.77/24
show vx addr fe80::1:2:3:4/64
say "A prefix length that the family does not have, and a text that is not an address, are refused:"
show vx addr 192.168.1.77/33
show vx addr 192.168.1.077/24

chapter "Times, sizes, rates"
say "A time stamp is read; a transfer of 100 MB that took 8.5 seconds is put into words."
show timefmt_transfer 104857600 "24-02-29 12:00:00"

chapter "Who called me? What is running?"
say "A program started through two shells still sees the program that started them."
show sh -c "sh -c 'process_whoami; true'; true"
say "vx tells of two sleepers that come and go:"
sleepers_told() { until [ "$(grep -c "^$1 " /tmp/sleepers)" -eq "$2" ]; do sleep 0.02; done; }
sleepers() {
  local first second
  sleep 3015 & first=$!
  sleep 3015 & second=$!
  sleepers_told running 2
  kill "$first"
  sleepers_told ended 1
  kill "$second"
}
watch_sleepers() { vx proc watch --interval 50 --count 4 'sleep 3015' | tee /tmp/sleepers; }
: >/tmp/sleepers
background sleepers
printf "  \$ vx proc watch --interval 50 --count 4 'sleep 3015'\n"
watch_sleepers | sed 's/^/      /'
wait "${peers[0]}" || :
show vx proc count 'sleep 3015'
