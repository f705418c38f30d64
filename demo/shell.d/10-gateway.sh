# The whole gateway, for the prompt and for the user's own programs.
source "$demo/gateway.sh"
gateway_up
