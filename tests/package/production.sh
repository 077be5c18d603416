# Run by scripts/check-package as root inside a throw-away root: installs
# the packages on a machine that never had them and follows the README's
# "Serving in production" as a new user would (its configuration and
# certificate commands are read from the README itself), then has Debian's
# prometheus scrape the service over TLS with a client certificate and
# basic auth, and curl see 401 without the password.
# usage: production.sh README
set -euo pipefail
readme=$1
cd /tmp/debs
fail() { echo "FAILED: $*" >&2; exit 1; }
export DEBIAN_FRONTEND=noninteractive

# The README's systemctl, where no systemd runs: prometheus is started below.
systemctl() { :; }

# The README's sudo, for a root shell without it.
sudo() {
  if [ "$1" = -u ]; then
    local user=$2
    shift 2
    runuser -u "$user" -- "$@"
  else
    "$@"
  fi
}

# The first sh block after the heading "### $1" of the README.
readme_block() {
  awk -v heading="### $1" '
    $0 == heading { found = 1; next }
    found && /^```sh$/ { inside = 1; next }
    inside && /^```$/ { exit }
    inside { print }' "$readme"
}

# The README's commands must work where the machine's name does not resolve.
if hostname -f >/dev/null 2>&1; then
  fail "the host name $(hostname) resolves here: run with a made-up name"
fi

# A fresh machine: tests may have left a PAM service and a user behind.
rm -f /etc/pam.d/fetchlet-launch
rm -rf /etc/fetchlet
if getent passwd fetchlet >/dev/null; then deluser --quiet fetchlet; fi

apt-get install -y -q ./libqvehost0_*.deb ./fetchlet_*.deb </dev/null >/dev/null
verify=$(systemd-analyze verify --man=no /lib/systemd/system/fetchlet.service 2>&1)
[ -z "$verify" ] || fail "systemd-analyze verify: $verify"

for section in Configuration Certificates "Web configuration"; do
  commands=$(readme_block "$section")
  [ -n "$commands" ] || fail "no commands under $section in the README"
  echo "== README: $section"
  (eval "$commands") >"/tmp/$section.log" 2>&1 ||
    fail "$section: $(cat "/tmp/$section.log")"
done
promtool check web-config /etc/fetchlet/tls/web.yml >/dev/null ||
  fail "promtool rejects the example web configuration"

# What the unit runs, as its user.
runuser -u fetchlet -- fetchlet serve --config /etc/fetchlet/serve.yml \
  --web-config /etc/fetchlet/tls/web.yml >/tmp/serve.log 2>&1 &
serve=$!
trap 'kill $serve $prometheus 2>/dev/null || true' EXIT
prometheus=

tls=/etc/fetchlet/tls
url=https://localhost:9874/metrics
status() {
  curl -s -o /dev/null -w '%{http_code}' --max-time 10 --cacert $tls/ca.crt "$@" $url
}
for _ in $(seq 100); do
  [ "$(status --cert $tls/prometheus.crt --key $tls/prometheus.key)" = 401 ] && break
  sleep 0.1
done
[ "$(status --cert $tls/prometheus.crt --key $tls/prometheus.key)" = 401 ] ||
  fail "a scrape without the password was not refused: $(cat /tmp/serve.log)"
[ "$(status --user 'prometheus:change me' \
  --cert $tls/prometheus.crt --key $tls/prometheus.key)" = 200 ] ||
  fail "the scrape with certificate and password failed"
[ "$(status --user 'prometheus:change me' || true)" = 000 ] ||
  fail "a scrape without a client certificate got an answer"

echo "== README: Prometheus, then prometheus scrapes over TLS as its user"
commands=$(readme_block Prometheus)
(eval "$commands") >/tmp/Prometheus.log 2>&1 ||
  fail "Prometheus: $(cat /tmp/Prometheus.log)"
p=/tmp/prometheus
mkdir -p $p && chown prometheus $p
# Debian's file as the README left it, scraped every second.
sed 's/^\(  scrape_interval:\).*/\1 1s/' /etc/prometheus/prometheus.yml >$p/prometheus.yml
runuser -u prometheus -- prometheus --config.file=$p/prometheus.yml \
  --storage.tsdb.path=$p/data --web.listen-address=127.0.0.1:19090 >$p/log 2>&1 &
prometheus=$!
query='http://127.0.0.1:19090/api/v1/query?query=fetchlet_collector_up'
for _ in $(seq 200); do
  if curl -s "$query" | grep -q '"collector":"load"'; then break; fi
  sleep 0.1
done
curl -s "$query" | grep -q '"collector":"load"' ||
  fail "prometheus has no sample: $(curl -s 'http://127.0.0.1:19090/api/v1/targets')"
echo "production setup from the README: good"
