# The whole virtual gateway for a chapter: gateway_up starts it as vxgateway does, gw steers it and shows what came of it. It
# can be started again once it has ended.

gateway_dir=/tmp/gateway  # logs of the peers

gateway_up() {
  [ -n "${VXBOX:-}" ] || { echo "gateway_up: only in a box" >&2; return 1; }
  local out ready said
  exec {out}>&1
  exec {ready}< <(exec gatewayd --serve --echo-log '      [log] ' 2>&"$out")
  peers+=($!)
  exec {out}>&-
  read -r -u "$ready" said || return 1
}
