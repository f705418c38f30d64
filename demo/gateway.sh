# The whole virtual gateway: sourced in a box, gateway_up starts every peer of the library and lays out the board, gw
# steers them and shows what they saw. It can be started again once its peers have ended.

gateway_dir=/tmp/gateway
gateway_block=/sys/class/block
gateway_soc=../../devices/platform/soc
gateway_monitor=/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon3
gateway_converter=/sys/bus/iio/devices/iio:device0

# gateway_peer NAME COMMAND...: a peer whose standard input is a FIFO and whose output a log.
gateway_peer() {
  local name=$1
  shift
  mkfifo "$gateway_dir/$name.orders"
  sleep infinity >"$gateway_dir/$name.orders" & peers+=($!)  # keeps the pipe open between orders
  : >"$gateway_dir/$name.log"
  "$@" <"$gateway_dir/$name.orders" >"$gateway_dir/$name.log" 2>&1 & peers+=($!)
  until_ready "$gateway_dir/$name.log"
}

# gateway_order NAME ORDER...: steers a peer, waits until it has obeyed, shows its answer.
gateway_order() {
  local log=$gateway_dir/$1.log order="${*:2}" told answer tries
  told=$(wc -l <"$log")
  echo "$order" >"$gateway_dir/$1.orders"
  for ((tries = 0; tries < 300; tries++)); do
    answer=$(tail -n "+$((told + 1))" "$log")
    if grep -qxF -e 'done' -e "ok $order" -e "cannot $order" -e "what? $order" <<<"$answer"; then
      sed -nE '/^([^ ]+=|[0-9]+$)/p' <<<"$answer"
      ! grep -E '^(unknown|cannot|what\?) ?' <<<"$answer"
      return
    fi
    sleep 0.01
  done
  echo "$1 gives no answer"
  return 1
}

# What the board is made of: its identity, its storage, its converters.
gateway_board() {
  [ -d /proc/sysinfo ] || board --prepare
  mkdir -p /proc/sysinfo/bd/{0,1} /proc/sysinfo/usbport{0,1} "$gateway_monitor" "$gateway_converter"
  echo 18 >/proc/sysinfo/qxhw
  echo 310 >/proc/sysinfo/bd/0/prod_name
  echo 0 >/proc/sysinfo/bd/1/prod_variant
  echo 1-1:1 >/proc/sysinfo/usbport0/usbName
  echo 1-1:2 >/proc/sysinfo/usbport1/usbName
  ln -sfn $gateway_soc/mmc_host/mmc0/mmcblk0/mmcblk0p3 $gateway_block/mmcblk0p3  # internal memory
  ln -sfn $gateway_soc/mmc_host/mmc0/mmcblk0/mmcblk0p4 $gateway_block/mmcblk0p4
  ln -sfn $gateway_soc/mmc_host/mmc1/mmcblk1/mmcblk1p1 $gateway_block/mmcblk1p1  # SD card
  gateway_mount mmcblk0p4 /data
  gateway_usb in
  gateway_voltage 1 12100
  gateway_voltage 2 0
  echo 906 >$gateway_converter/in_voltage0_raw
  echo 0.000439453 >$gateway_converter/in_voltage_scale
}

# A file system in memory, mounted as if it lay on this partition.
gateway_mount() {
  mkdir -p "$2"
  grep -q "^/dev/$1 " /proc/mounts || mount -t tmpfs -o size=8m "/dev/$1" "$2"
}

# A disk in the port that the board calls 1, with one partition.
gateway_usb() {
  case "${1:-}" in
    in)
      ln -sfn $gateway_soc/usb1/1-1.2/host0/block/sda $gateway_block/sda
      ln -sfn $gateway_soc/usb1/1-1.2/host0/block/sda/sda1 $gateway_block/sda1
      gateway_mount sda1 /media/usb
      ;;
    out)
      if grep -q '^/dev/sda1 ' /proc/mounts; then umount /media/usb; fi
      rm -f $gateway_block/sda $gateway_block/sda1
      ;;
    *) gateway_help; return 1 ;;
  esac
}

gateway_voltage() { echo "$2" >"$gateway_monitor/in$1_input"; }

# Scripts of the firmware: each leaves a note instead of doing it for real.
gateway_scripts() {
  mkdir -p /usr/local/sbin /var/spool/sms/incoming
  : >"$gateway_dir/sms.log"
  : >"$gateway_dir/power.log"
  cat >/usr/local/sbin/send-sms <<'SCRIPT'
#!/bin/sh
{
  sed -n 's/^To: //p' "$1" | tr '\n' ' '
  tail -n +3 "$1"
} >>/tmp/gateway/sms.log
rm -f "$1"
SCRIPT
  local script
  for script in system-reboot system-poweroff; do
    printf '#!/bin/sh\necho "%s $*" >>/tmp/gateway/power.log\n' "$script" >"/usr/local/sbin/$script"
  done
  chmod +x /usr/local/sbin/send-sms /usr/local/sbin/system-reboot /usr/local/sbin/system-poweroff
}

gateway_up() {
  [ -n "${VXBOX:-}" ] || { echo "gateway_up: only in a box" >&2; return 1; }
  # As after a start of the board: nothing is left of what ran before.
  rm -rf "$gateway_dir" /tmp/status /var/run/wwanmd0 /var/lib/configd/gateway-store /var/log/qxlog
  mkdir -p "$gateway_dir" /tmp/status/wwanmd/card0 /var/run/wwanmd0
  gateway_scripts
  gateway_board
  gateway_peer config configd --store /var/lib/configd/gateway-store wan.interface=wan0 wan.gateway=192.0.2.1 \
    wan.target=198.51.100.9 wan.sms=+15550100 wan.card=0 wan.interval_ms=200 wan.losses=2 wan.alarm_input=1 wan.state_output=1 \
    power.input=2
  gateway_peer modem wwanmd 0
  gateway_peer events eventmanager
  gateway_peer board board
  gateway_peer wan wanlink --delay 3
  gw modem on signal = 'OK -67 dBm'
}

gateway_help() {
  cat <<'HELP'
Move and change things (each peer's own --help lists all its orders):
  gw input N 0|1                           move a digital input; gw outputs shows what was set
  gw wan cut | restore | lose | carry      the cable of the WAN link; the line behind it
  gw modem reset on|off, gw modem busy 2   the modem daemon of card 0 (wwanmd --help)
  gw config set KEY VALUE                  change the configuration (configd --help), then kill -HUP the daemon
  gw usb in | out                          a USB disk; vx storage shows all storage
  gw voltage N MILLIVOLTS                  the supply at input 1 or 2; vx adc N reads it
See what came of it:
  gw status           gw log               the status tree; the device log
  gw events           gw sms               what the event manager and the SMS tool got
  gw power            gw watch             reboots asked for; all of these as they come (Ctrl-C ends it)
  wan_supervisor &                         the example daemon; its state: gw status
HELP
}

gw() {
  local what=${1:-help}
  [ $# -eq 0 ] || shift
  case "$what" in
    wan | modem | config | board) gateway_order "$what" "$@" ;;
    input) gateway_order board in "$@" ;;
    usb) gateway_usb "$@" ;;
    voltage) gateway_voltage "$@" ;;
    outputs) sed -n '/^out/p' "$gateway_dir/board.log" ;;
    events) sed -n '/^event/p' "$gateway_dir/events.log" ;;
    sms) cat "$gateway_dir/sms.log" ;;
    power) cat "$gateway_dir/power.log" ;;
    status) vx status watch --for 0 ;;
    log) vx log show ;;
    watch) tail -q -n 0 -f "$gateway_dir"/{board,events,sms,power}.log | grep -v --line-buffered -x 'done' ;;
    *) gateway_help ;;
  esac
}
export -f gw gateway_help gateway_order gateway_usb gateway_mount gateway_voltage
export gateway_dir gateway_block gateway_soc gateway_monitor
