# A daemon written with the classes: addresses, texts, a keyed digest.
chapter "Classes: who may give an order"
say "An address with its mask knows what it is, and who is its neighbour:"
show ipaddress_calc 192.168.1.1/24 192.168.1.77
show ipaddress_calc 192.168.1.255/24
say "The short HMAC-SHA1 of an order, made with the shared key:"
show digest_check secret "reboot at 03:00"
say "The daemon at 192.168.1.1/24 gets four orders: a genuine one, one that was changed on its way, one from elsewhere, nonsense."
mac=$(digest_check secret "reboot at 03:00")
printf '%s\n' "192.168.1.77 $mac reboot at 03:00" "192.168.1.77 $mac reboot at 04:00" "10.9.8.7 $mac reboot at 03:00" "hello" >/tmp/orders
show sh -c 'class_daemon 192.168.1.1/24 secret </tmp/orders'
