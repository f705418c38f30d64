# The whole gateway behind the prompt and behind programs of the user's own.
source "$top/demo/gateway.sh"
gateway_up
