# Plug-ins and the status tree.
chapter "A daemon extends itself with a plug-in"
say "The host knows the plug-in by its path only; the library looks up its entry points and its class factory."
show dynamicmodule_host /gateway/examples/dynamicmodule_greeter.so gateway
say "A library that is not there. The log line carries errno, which this system's loader leaves alone; the reason is its own."
show dynamicmodule_host /usr/lib/plugins/missing.so gateway

chapter "The status tree: a daemon's state, and a FIFO that commands it"
switchd() { statusinterface_daemon | sed -u 's/^/      [switchd] /'; }
background switchd
until [ -p /tmp/status/switchd/command ]; do sleep 0.01; done
say "Everybody can read the daemon's state as a file and write to its FIFO."
show ls -l /tmp/status/switchd
show vx status get switchd/state
command_switch() { vx status send switchd/command "$1"$'\n'; sleep 0.1; vx status get switchd/state; }
show command_switch on
show command_switch dance
show command_switch off
say "At its end the daemon takes its FIFO away; the state stays until the reboot."
vx status send switchd/command $'quit\n'
wait "${peers[0]}"
show ls /tmp/status/switchd
