# The end of what 10-configd.sh began: a request without an answer.
chapter "Configuration daemon, silent"
say "The program that asked for slow.key and met silence:"
if wait "$slow"; then say "It got an answer, which should not be."; fi
sed 's/^/      /' /tmp/slow.out
