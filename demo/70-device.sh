# Device and modem: the board's lines, its identity, its modem and its messages.
chapter "The board's inputs and outputs"
say "A stand-in for the board driver serves /sys/devices/vantorix: 4 inputs, 2 outputs."
exec 7> >(board --inputs 4 --outputs 2 >/tmp/board.out)
until grep -q ready /tmp/board.out 2>/dev/null; do sleep 0.05; done
say "Input 2 is switched on; the example sets every output as the input of its number is."
echo "in 2 1" >&7
until grep -q done /tmp/board.out; do sleep 0.05; done
show dio_status_mirror
say "What the board saw:"
show grep ^out /tmp/board.out
exec 7>&-

chapter "What board this is"
board --prepare
mkdir -p /proc/sysinfo/bd/0 /proc/sysinfo/bd/1
echo 18 >/proc/sysinfo/qxhw
echo 310 >/proc/sysinfo/bd/0/prod_name
echo 0 >/proc/sysinfo/bd/1/prod_variant
show hardware_describe
say "An OEM file renames the product."
mkdir -p /etc/oem
echo "ProductType.QX310=Example Gateway" >/etc/oem/oem.conf
show hardware_describe
say "Its storage, and the supply voltage behind its monitor chip:"
ln -s ../../devices/soc/mmc_host/mmc0/mmcblk0/mmcblk0p3 /sys/class/block/mmcblk0p3
ln -s ../../devices/soc/ata1/block/sda /sys/class/block/sda
show storage_list
mkdir -p /sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon3
echo 12100 >/sys/bus/i2c/devices/0-0058/da9063-hwmon/hwmon/hwmon3/in1_input
show adc_voltage 1

chapter "Asking the modem"
say "A stand-in for the modem daemon of card 0 answers text commands."
exec 8> >(wwanmd 0 >/tmp/wwanmd.out)
until grep -q ready /tmp/wwanmd.out 2>/dev/null; do sleep 0.05; done
printf '%s\n' 'on signal = OK -71 dBm\n' 'on reboot = ERROR not now\n' >&8
until [ "$(grep -c done /tmp/wwanmd.out)" = 2 ]; do sleep 0.05; done
show wwanmd_signal 0
show wwanmd_signal 0 reboot
say "The same, suspended; and a card without a daemon:"
echo "suspend on" >&8
until [ "$(grep -c done /tmp/wwanmd.out)" = 3 ]; do sleep 0.05; done
show wwanmd_signal 0
show wwanmd_signal 1
exec 8>&-

chapter "Short messages"
say "One message waits in the spool; the example answers and deletes it."
mkdir -p /var/spool/sms/incoming
printf 'From: +4930123\nReceived: now\n\nstatus?\n' >/var/spool/sms/incoming/17
printf '#!/bin/sh\necho "send-sms got:"; cat "$1"; rm "$1"\n' >/usr/local/sbin/send-sms
chmod 755 /usr/local/sbin/send-sms
show simplesms_answer all is well
show ls /var/spool/sms/incoming
