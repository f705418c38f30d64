# A WAN link, watched with echoes at both levels.
chapter "WAN link: pinging a target that no route leads to"
mkfifo /tmp/wanlink.control
: >/tmp/wanlink.log
sleep 60 >/tmp/wanlink.control & peers+=($!)  # keeps the pipe open between orders
wanlink --delay 5 </tmp/wanlink.control >>/tmp/wanlink.log & peers+=($!)
until_ready /tmp/wanlink.log
wanlink_order() {
  echo "$*" >/tmp/wanlink.control
  until grep -qx "ok $*" /tmp/wanlink.log; do sleep 0.01; done
  : >/tmp/wanlink.log
}
say "wan0 leads to a gateway host (192.0.2.1). From there a line that takes 5 ms each way leads to a target (198.51.100.9)."
show vx route 192.0.2.1
show vx route 198.51.100.9
say "The gateway answers at IP level. The target has no route yet, and still is reached: as a frame to the gateway's hardware address."
show vx ping -I wan0 -c 1 192.0.2.1
show vx ping -I wan0 -g 192.0.2.1 -c 1 198.51.100.9
say "With a route, the target is reached at IP level too, and by a class that polls instead of waiting:"
wanlink_order route
show vx route 198.51.100.9
show vx ping -c 2 -i 0.1 198.51.100.9
show pingclient_poll 192.0.2.10 198.51.100.9 2
wanlink_order noroute
say "The cable is pulled, and plugged in again:"
wanlink_order cut
show vx ping -I wan0 -g 192.0.2.1 -c 1 198.51.100.9
wanlink_order restore
show vx ping -I wan0 -g 192.0.2.1 -c 1 198.51.100.9
say "What users see of the interfaces, and an interface set by hand:"
ip link add eth0 type veth peer name port0
ip link set port0 up
show interface_names eth0 ppp10 gretun0 wan0
show ipinterfacestatus_set eth0 192.168.7.1 24
show vx link
show vx link eth0
show vx link --wan
