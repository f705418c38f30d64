# A story: the WAN supervisor of examples/wan_supervisor.cpp lives through a bad minute.
source "$demo/gateway.sh"
chapter "The whole gateway, and a WAN supervisor that lives in it"
say "Running now: configuration daemon, modem daemon of card 0, event manager, board with inputs, outputs and storage, SMS tool, WAN link with a gateway host and a target behind it. The example daemon wan_supervisor watches the link. What it says, and what the others get of it, as it happens, in seconds since the start:"
gateway_up

exec 3>&1
story=$gateway_dir/story.log
began=${EPOCHREALTIME/[.,]/}
# told_by WHO: passes on what it reads, with the time and who says it.
told_by() {
  local line tenths
  while IFS= read -r line; do
    tenths=$(((${EPOCHREALTIME/[.,]/} - began) / 100000))
    printf '%3d.%d  [%s] %s\n' $((tenths / 10)) $((tenths % 10)) "$1" "$line" >&3
    printf '[%s] %s\n' "$1" "$line" >>"$story"
  done
}
# follow WHO BEGINNING FILE: passes on the lines of a peer's log that begin so.
follow() { tail -n +1 -f "$3" > >(sed -u -n "/^$2/p" | told_by "$1") & peers+=($!); }
# Begins a piece of the story.
now() {
  say "$1"
  : >"$story"
}
# Waits until all this has been told in the present piece, for 15 s each at the most.
until_told() {
  local i words
  for words in "$@"; do
    for ((i = 0; i < 750; i++)); do
      if grep -qaF -- "$words" "$story"; then continue 2; fi
      sleep 0.02
    done
    say "(no word of \"$words\")"
  done
}
# Waits until the supervisor has lost this many pings in a row.
until_lost() {
  local i
  for ((i = 0; i < 750; i++)); do
    if [[ $(vx status get wan/lost-pings) =~ $1 ]]; then return; fi
    sleep 0.02
  done
  say "(no word of lost pings: $1)"
}

now "All well:"
follow "board" "out" "$gateway_dir/board.log"
follow "event manager" "event" "$gateway_dir/events.log"
follow "SMS tool" "" "$gateway_dir/sms.log"
wan_supervisor > >(told_by supervisor) 2>&1 & supervisor=$!
peers+=("$supervisor")
until_told "signal" "WAN link up" "out 1 = 1" "id=100 param=1"

now "The cable is pulled:"
gw wan cut
until_told "WAN link lost" "out 1 = 0" "id=100 param=0" "sms to" "[SMS tool] +15550100"
say "The device log has it too, the newest line first:"
show vx log show

now "The modem's card is being reset, which takes its time:"
gw modem reset on
until_told "in reset"

now "The cabinet is opened: digital input 1 is raised."
gw input 1 1
until_told "alarm input raised" "id=101 param=1"

now "The configuration is changed: five pings lost in a row make a lost link from now on, not two."
show vx config set wan.losses=5
kill -HUP "$supervisor"
until_told "read again"

now "The cabinet is closed, the modem is back, the cable is in again:"
gw input 1 0
gw modem reset off
gw wan restore
until_told "alarm input released" "id=101 param=0" "signal" "WAN link up" "out 1 = 1" "id=100 param=1"

now "The line behind the gateway swallows two pings; with the new configuration the link stays up:"
gw wan lose
until_lost "[2-4]"
say "      lost in a row: $(vx status get wan/lost-pings), link: $(vx status get wan/link)"
gw wan carry
until_lost 0

say "A shell script is a daemon's equal. This one has its configuration, its input, its status, its events and its lock from vx:"
show sed -n '3,$p' "$demo/power_guard"
now "It is started, and mains power fails: digital input 2 is raised."
"$demo/power_guard" > >(told_by power_guard) 2>&1 & guard=$!
peers+=("$guard")
until_told "[power_guard] power from the mains" "id=102 param=0"
gw input 2 1
until_told "[power_guard] power from the battery" "id=102 param=1"
show vx status get power/source
now "Another script dies while it holds the lock. Power returns; the guard learns of the death and goes on:"
vx lock power -- sh -c ': >/tmp/gateway/locked; exec sleep 5' & holder=$!
until [ -e /tmp/gateway/locked ]; do sleep 0.02; done
kill -KILL "$holder"
wait "$holder" 2>/dev/null || :
gw input 2 0
until_told "the owner before died" "[power_guard] power from the mains" "id=102 param=0"
kill "$guard"
wait "$guard" || :

say "All well again. What is left to be read:"
show vx status watch --for 0
show vx log show
show gw events
show gw sms
show gw outputs
now "The supervisor is told to end:"
kill "$supervisor"
wait "$supervisor" || say "(exit status $?)"
until_told "out 1 = 0" "ended"
exec 3>&-
