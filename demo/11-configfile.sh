# Configuration files and the system information.
chapter "Configuration files"
say "A file may include others, named from its own directory; a later entry replaces an earlier one."
mkdir -p /etc/vx/wan /etc/default
printf '%s\n' '# the gateway' 'host name = gateway 7' 'wan.mtu = 1500' 'include wan/lte.conf' 'wan.enabled=true' >/etc/vx/main.conf
printf '%s\n' 'wan.mtu = 1428' 'include apn.conf' >/etc/vx/wan/lte.conf
printf '%s\n' 'apn = internet' >/etc/vx/wan/apn.conf
show head -n 20 /etc/vx/main.conf /etc/vx/wan/lte.conf /etc/vx/wan/apn.conf
show vx config --file /etc/vx/main.conf list
show vx config --file /etc/vx/main.conf get wan.mtu
show vx config --file /etc/vx/main.conf get no.such.key
say "A file that includes itself ends with a message in the system log when the descriptors run out. It holds no key:"
printf '%s\n' 'include loop.conf' >/etc/vx/loop.conf
show vx config --file /etc/vx/loop.conf get wan.mtu
say "The device's system information:"
printf '%s\n' 'PRODUCT="gateway 7"' 'REVISION="3"' >/etc/default/system-info
show vx sysinfo
show vx sysinfo REVISION
show vx sysinfo NONE
