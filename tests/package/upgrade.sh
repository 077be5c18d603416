# Run by scripts/check-package as root inside a throw-away root: installs
# qvefetchlets 0.1.0, edits its configuration, upgrades to the split
# packages, checks what they installed, and purges them.
cd /tmp/debs
fail() { echo "FAILED: $*" >&2; exit 1; }
export DEBIAN_FRONTEND=noninteractive

# A fresh machine: tests may have left a PAM service and a user behind.
rm -f /etc/pam.d/fetchlet-launch
rm -rf /etc/fetchlet
if getent passwd fetchlet >/dev/null; then deluser --quiet fetchlet; fi

dpkg -i qvefetchlets_0.1.0-1_*.deb >/dev/null
echo "allow_root = no  # edited" >>/etc/fetchlet/launch.conf
echo "# edited" >>/etc/pam.d/fetchlet-launch

# As a user upgrades: apt sees Breaks and Replaces and orders the unpacking.
# launch.conf changed since 0.1.0 and was edited here too: dpkg would ask;
# keep the edit, as an unattended upgrade does.
apt-get install -y -q -o Dpkg::Options::=--force-confdef \
  -o Dpkg::Options::=--force-confold ./libqvehost0_*.deb ./libqvehost-dev_*.deb \
  ./fetchlet_*.deb ./qvefetchlets_0.2.0-*_all.deb </dev/null >/dev/null
grep -q "# edited" /etc/fetchlet/launch.conf || fail "launch.conf lost its edit"
grep -q "# edited" /etc/pam.d/fetchlet-launch || fail "PAM file lost its edit"
[ "$(dpkg -S /etc/fetchlet/launch.conf)" = "fetchlet: /etc/fetchlet/launch.conf" ] ||
  fail "launch.conf belongs to $(dpkg -S /etc/fetchlet/launch.conf)"
dpkg-query -W -f='${Conffiles}\n' fetchlet | grep -q /etc/pam.d/fetchlet-launch ||
  fail "the PAM file is not a conffile of fetchlet"
[ "$(stat -c %a:%U /usr/libexec/fetchlet-launch)" = 4755:root ] ||
  fail "launcher is $(stat -c %a:%U /usr/libexec/fetchlet-launch)"
getent passwd fetchlet >/dev/null || fail "no fetchlet user"
[ -f /usr/share/doc/fetchlet/examples/serve.yml ] || fail "no example"
systemctl is-enabled fetchlet.service 2>/dev/null | grep -qx disabled ||
  [ ! -e /etc/systemd/system/multi-user.target.wants/fetchlet.service ] ||
  fail "the unit is enabled"

# The program finds its plug-in in its private directory, as any user.
out=$(runuser -u fetchlet -- fetchlet run os command='echo ok' --json)
grep -q '"ok' <<<"$out" || fail "fetchlet run: $out"

# The transitional package still lists the configuration files it gave
# away, as obsolete: its purge must leave them to fetchlet.
dpkg --purge qvefetchlets >/dev/null
grep -q "# edited" /etc/fetchlet/launch.conf ||
  fail "purging qvefetchlets removed launch.conf"
dpkg --purge fetchlet libqvehost-dev libqvehost0 >/dev/null
for f in /etc/fetchlet/launch.conf /etc/pam.d/fetchlet-launch \
         /usr/bin/fetchlet /usr/lib/*/libqvehost.so.0; do
  [ ! -e "$f" ] || fail "$f is still there after the purge"
done
echo "upgrade from qvefetchlets 0.1.0 and purge: good"
