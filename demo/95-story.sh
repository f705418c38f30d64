# A story: the WAN supervisor of examples/wan_supervisor.cpp lives through a bad minute.
source "$top/demo/gateway.sh"
chapter "The whole gateway, and a WAN supervisor that lives in it"
say "Running now: configuration daemon, modem daemon of card 0, event manager, board with inputs and outputs, SMS tool, WAN link with a gateway host and a target behind it. The example daemon wan_supervisor watches the link."
rm -f /var/log/qxlog
gateway_up

exec 3>&1
wan_supervisor > >(sed -u 's/^/      [supervisor] /' | tee -a /tmp/gateway/story.log >&3) 2>&1 & supervisor=$!
peers+=("$supervisor")
# Begins a piece of the story.
now() {
  say "$1"
  : >/tmp/gateway/story.log
}
# Waits until the supervisor has told all this in the present piece, for 15 s at the most.
until_told() {
  local i words
  for words in "$@"; do
    for ((i = 0; i < 750; i++)); do
      if grep -qaF -- "$words" /tmp/gateway/story.log; then continue 2; fi
      sleep 0.02
    done
    say "(no word of \"$words\")"
  done
}

say "All well:"
until_told "WAN link up" "signal"
now "The cable is pulled:"
gw wan cut
until_told "sms to"
now "The modem's card is being reset, which takes its time:"
gw modem reset on
until_told "in reset"
now "Somebody opens the cabinet: digital input 1 is raised."
gw input 1 1
until_told "alarm input raised"
now "The configuration is changed: five losses in a row from now on, not two."
gw config set wan.losses 5
sleep 0.1
kill -HUP "$supervisor"
until_told "read again"
now "The cabinet is closed, the modem is back, the cable is in again:"
gw input 1 0
gw modem reset off
gw wan restore
until_told "alarm input released" "signal" "WAN link up"
say "All well again. What the others saw of it:"
show gw events
show gw sms
show gw outputs
show gw log
show gw status
kill "$supervisor"
wait "$supervisor" || say "(exit status $?)"
exec 3>&-
