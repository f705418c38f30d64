# The whole gateway behind the prompt and behind programs of the user's own.
source "$demo/gateway.sh"
gateway_up
