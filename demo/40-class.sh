# A daemon written with the classes: a file of settings, the configuration daemon, addresses, texts, a keyed digest.
chapter "Classes: who may give an order"
say "An address with its mask knows what it is, and who is its neighbour:"
show vx addr 192.168.1.1/24
show vx addr 192.168.1.1/24 --contains 192.168.1.77
show vx addr 192.168.1.1/24 --contains 10.9.8.7
say "The short HMAC-SHA1 of an order, its first 12 bytes, made by a script with the shared key:"
printf secret >/tmp/orders.secret
short_hmac() { printf '%s' "$1" | vx digest hmac-sha1 --key-file /tmp/orders.secret | cut -c 1-24; }
source_of short_hmac
show short_hmac "reboot at 03:00"
say "A daemon finds its address and that key in a file; the configuration daemon, asked first, holds another address:"
printf '%s\n' "orders.address = 10.0.0.1/8" "orders.key = secret" >/tmp/orders.conf
show cat /tmp/orders.conf
mkfifo /tmp/orders.control
sleep 60 >/tmp/orders.control & peers+=($!)  # keeps the pipe open
configd --store /tmp/orders.store orders.address=192.168.1.1/24 >/tmp/orders.configd </tmp/orders.control & peers+=($!)
until_ready /tmp/orders.configd
show vx config get orders.address
say "It gets four orders: a genuine one, one that was changed on its way, one from elsewhere, nonsense."
mac=$(short_hmac "reboot at 03:00")
printf '%s\n' "192.168.1.77 $mac reboot at 03:00" "192.168.1.77 $mac reboot at 04:00" "10.9.8.7 $mac reboot at 03:00" "hello" >/tmp/orders
show sh -c 'class_daemon /tmp/orders.conf </tmp/orders'
