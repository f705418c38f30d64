# The configuration daemon behind the prompt; steer it with: echo 'busy 1' >/tmp/configd.control
mkfifo /tmp/configd.control
sleep infinity >/tmp/configd.control &
configd hostname=gateway-7 led.count=2 led.0.color=red led.1.color=green </tmp/configd.control >/tmp/configd.log &
echo "configd runs; try: configd_reader hostname, or echo 'busy 1' >/tmp/configd.control (configd --help)"
