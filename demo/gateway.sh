# The whole virtual gateway: sourced in a box, gateway_up starts every peer of the library, gw steers them.

gateway_dir=/tmp/gateway

# gateway_peer NAME COMMAND...: a peer whose standard input is a FIFO and whose output a log.
gateway_peer() {
  local name=$1
  shift
  mkfifo "$gateway_dir/$name.orders"
  sleep infinity >"$gateway_dir/$name.orders" & peers+=($!)  # keeps the pipe open between orders
  : >"$gateway_dir/$name.log"
  "$@" <"$gateway_dir/$name.orders" >"$gateway_dir/$name.log" 2>&1 & peers+=($!)
  until grep -q '^ready' "$gateway_dir/$name.log"; do sleep 0.01; done
}

# Scripts of the firmware: each leaves a note instead of doing it for real.
gateway_scripts() {
  mkdir -p /usr/local/sbin /var/spool/sms/incoming
  cat >/usr/local/sbin/send-sms <<'SCRIPT'
#!/bin/sh
sed -n 's/^To: //p' "$1" | tr '\n' ' ' >>/tmp/gateway/sms.log
tail -n +3 "$1" >>/tmp/gateway/sms.log
rm -f "$1"
SCRIPT
  local script
  for script in system-reboot system-poweroff; do
    printf '#!/bin/sh\necho "%s $*" >>/tmp/gateway/power.log\n' "$script" >"/usr/local/sbin/$script"
  done
  chmod +x /usr/local/sbin/send-sms /usr/local/sbin/system-reboot /usr/local/sbin/system-poweroff
}

gateway_up() {
  mkdir -p "$gateway_dir" /tmp/status/wwanmd/card0 /var/run/wwanmd0
  gateway_scripts
  gateway_peer config configd --store /var/lib/configd/gateway-store wan.interface=wan0 wan.gateway=192.0.2.1 \
    wan.target=198.51.100.9 wan.sms=+15550100 wan.card=0 wan.interval_ms=200 wan.losses=2 wan.alarm_input=1 wan.state_output=1
  gateway_peer modem wwanmd 0
  gateway_peer events eventmanager
  gateway_peer board board
  gateway_peer wan wanlink --delay 3
  gw modem on signal = 'OK -67 dBm'
}

gateway_help() {
  cat <<'HELP'
  gw wan cut | restore | lose | carry      the cable of the WAN link; the line behind it
  gw input N 0|1      gw outputs           move a digital input; see what was set
  gw modem reset on|off, gw modem busy 2   the modem daemon of card 0 ("wwanmd --help" lists its orders)
  gw config set KEY VALUE                  change the configuration ("configd --help"), then kill -HUP the daemon
  gw events           gw sms               what the event manager and the SMS tool got
  gw status           gw log               the status tree; the device log
  wan_supervisor &                         the example daemon; its state: gw status
HELP
}

gw() {
  local what=${1:-help}
  [ $# -eq 0 ] || shift
  case "$what" in
    wan | modem | config | board) echo "$*" >"$gateway_dir/$what.orders" ;;
    input) echo "in $*" >"$gateway_dir/board.orders" ;;
    outputs) grep '^out' "$gateway_dir/board.log" ;;
    events) grep '^event' "$gateway_dir/events.log" ;;
    sms) cat "$gateway_dir/sms.log" ;;
    status) (cd /tmp/status && find . -type f ! -name '.*' | sort | while read -r f; do echo "${f#./}: $(cat "$f")"; done) ;;
    log) cat /var/log/qxlog ;;
    *) gateway_help ;;
  esac
}
export -f gw gateway_help
export gateway_dir
