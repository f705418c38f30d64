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
say "wan0 leads to a gateway host (192.0.2.1); behind it, at the end of a line that takes 5 ms each way, is a target (198.51.100.9)."
show route_path 192.0.2.1 198.51.100.9
say "The gateway answers at IP level. The target has no route yet, and still is reached: as a frame to the gateway's hardware address."
show ping_wan wan0 192.0.2.1
show ping_wan wan0 198.51.100.9 192.0.2.1
say "With a route, the target is reached at IP level too, and by a client that polls instead of waiting:"
wanlink_order route
show route_path 198.51.100.9
show ping_wan wan0 198.51.100.9
show pingclient_poll 192.0.2.10 198.51.100.9 2
wanlink_order noroute
say "The cable is pulled, and plugged in again:"
wanlink_order cut
show ping_wan wan0 198.51.100.9 192.0.2.1
wanlink_order restore
show ping_wan wan0 198.51.100.9 192.0.2.1
say "What users see of the interfaces, and an interface set by hand:"
ip link add eth0 type veth peer name port0
ip link set port0 up
show interface_names eth0 ppp10 gretun0 wan0
show ipinterfacestatus_set eth0 192.168.7.1 24
