# Device and modem: the board's lines, its identity, its storage and voltages, its modem and its messages.
source "$demo/gateway.sh"
chapter "The board's inputs and outputs"
say "From here on the whole virtual gateway runs; \"gw\" moves what a person would move on a real one."
say "A stand-in for the board driver serves /sys/devices/vantorix: 4 inputs, 2 outputs. Input 2 is switched on; a script sets every output as the input of its number is."
gateway_up
mirror() {
  local number
  for number in $(seq "$(vx io count | sed -n 's/^outputs=//p')"); do
    vx io set "$number=$(vx io get "din$number")"
  done
}
source_of mirror
show gw input 2 1
show mirror
show vx io list
say "What the board saw:"
show gw outputs

chapter "What board this is"
show vx board
say "An OEM file renames the product."
mkdir -p /etc/oem
echo "ProductType.QX310=Example Gateway" >/etc/oem/oem.conf
show vx board
rm -r /etc/oem
say "All of it in one: lines, storage and supply voltages. Then the USB disk is taken out, and the supply sinks:"
survey() { vx io list; vx storage; vx adc; }
show survey
show gw usb out
show gw voltage 1 9350
show survey
show vx adc 1
show gw usb in
show vx storage sda1

chapter "Asking the modem"
say "A stand-in for the modem daemon of card 0 answers text commands."
show gw modem on reboot = ERROR not now
show vx modem signal
show vx modem send reboot
say "The card is suspended, which its state tells; and a card without a daemon:"
show gw modem suspend on
show vx modem state
show vx modem signal --card 1

chapter "Short messages"
say "One message waits in the spool; a script answers and deletes it."
printf 'From: +4930123\nReceived: now\n\nstatus?\n' >/var/spool/sms/incoming/17
answer_messages() {
  local id
  for id in $(vx sms list); do
    vx sms send "$(vx sms show "$id" | sed -n 's/^from=//p')" 'all is well'
    vx sms delete "$id"
  done
}
source_of answer_messages
show vx sms show 17
show answer_messages
say "What the SMS tool got, and what is left in the spool:"
show gw sms
show vx sms list
