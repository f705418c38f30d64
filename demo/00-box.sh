# The virtual gateway itself.
chapter "A gateway in a throwaway root"
say "Own processes, own network, own system log; nothing on this machine changes."
show hostname
