# Device and modem: the board's lines, its identity, its storage and voltages, its modem and its messages.
source "$demo/gateway.sh"
chapter "The board's inputs and outputs"
say "From here on the whole virtual gateway runs; \"gw\" moves what a person would move on a real one."
say "A stand-in for the board driver serves /sys/devices/vantorix: 4 inputs, 2 outputs. Input 2 is switched on; the example sets every output as the input of its number is."
gateway_up
show gw input 2 1
show dio_status_mirror
say "What the board saw:"
show gw outputs

chapter "What board this is"
show hardware_describe
say "An OEM file renames the product."
mkdir -p /etc/oem
echo "ProductType.QX310=Example Gateway" >/etc/oem/oem.conf
show hardware_describe
rm -r /etc/oem
say "All of it in one: lines, storage and supply voltages. Then the USB disk is taken out, and the supply sinks:"
show board_survey
show gw usb out
show gw voltage 1 9350
show board_survey
show adc_voltage 1
show gw usb in
show storage_list

chapter "Asking the modem"
say "A stand-in for the modem daemon of card 0 answers text commands."
show gw modem on reboot = ERROR not now
show wwanmd_signal 0
show wwanmd_signal 0 reboot
say "The same, suspended; and a card without a daemon:"
show gw modem suspend on
show wwanmd_signal 0
show wwanmd_signal 1

chapter "Short messages"
say "One message waits in the spool; the example answers and deletes it."
printf 'From: +4930123\nReceived: now\n\nstatus?\n' >/var/spool/sms/incoming/17
show simplesms_answer all is well
say "What the SMS tool got, and what is left in the spool:"
show gw sms
show ls /var/spool/sms/incoming
