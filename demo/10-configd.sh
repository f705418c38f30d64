# The configuration daemon: scripts and a small daemon that use its values.
chapter "Configuration daemon"
say "A configuration daemon with a store in a file listens at /var/run/configd/daemon.sock."
mkfifo /tmp/configd.control /tmp/leds.clock
sleep 60 >/tmp/configd.control & peers+=($!)  # keeps the pipe open between orders
start_configd() {
  : >/tmp/configd.log
  configd --store /var/lib/configd/store "$@" >>/tmp/configd.log </tmp/configd.control & peers+=($!)
  until_ready /tmp/configd.log
}
start_configd led.count=2 led.0.color=red led.1.color=green hostname=gateway-7
order() {
  echo "$*" >/tmp/configd.control
  until grep -qx "ok $*" /tmp/configd.log; do sleep 0.01; done
  : >/tmp/configd.log
}
say "A script reads values with vx. A daemon in C can fetch a list once and serve it from memory:"
show vx config get hostname led.count
show configd_reader --list led.0.color led.1.color no.such.key
say "A change is confirmed, then committed. The daemon is busy for the next three commits. Without --wait 0, vx asks again for a minute:"
order busy 3
show vx config set --wait 0 hostname=gateway-8
show vx config commit --wait 10
show vx config get hostname

say "Asked for a key on which the daemon stays silent, a program gets its time back after 10 s; it waits in the background until the end of this demo:"
order mute slow.key
printf '  $ vx config get slow.key &\n'
vx config get slow.key >/tmp/slow.out 2>&1 & slow=$!

say "A small daemon, one round at a time. First with the values above, then with a changed one:"
led_daemon </tmp/leds.clock >>/tmp/leds.out & peers+=($!)
exec {clock}>/tmp/leds.clock
tick() {
  : >/tmp/leds.out
  echo >&"$clock"
  until grep -qE 'committed|busy|could not|keeping' /tmp/leds.out; do sleep 0.01; done
  sed 's/^/      /' /tmp/leds.out
}
tick
order set led.1.color blue
tick
say "The daemon answers nonsense:"
order raw '?'
tick
say "The configuration daemon dies:"
order die
tick
say "It starts again, with what was committed:"
start_configd
tick
exec {clock}>&-
