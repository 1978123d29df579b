#!/bin/bash
# live_and_go.sh FOLDER: installs, upgrades, removes and purges the agent's package in a root of its own, with dpkg and
# its rules as they are: a copy of the packages that every Debian has and that ours needs, and of nothing else. Systemd
# is not there; what it would be asked to do is written down.
source "$(dirname "$0")/common.sh"
patience=30

in_namespaces --pid --fork --kill-child -- "$@"

# --- The root
root=$work/root
mkdir -p "$root"/{usr/{bin,sbin,lib,lib32,lib64,libx32},etc,proc,dev,run,tmp,var/{lib/dpkg/{info,updates,triggers},log,cache,tmp}}
for folder in bin sbin lib lib32 lib64 libx32; do ln -s usr/$folder "$root/$folder"; done
mapfile -t essential < <(dpkg-query -W -f '${Essential} ${Package}\n' | sed -n 's/^yes //p')
mapfile -t names < <(apt-cache depends --recurse --installed --no-recommends --no-suggests --no-conflicts --no-breaks \
  --no-replaces --no-enhances "${essential[@]}" passwd libstdc++6 procps | grep '^[a-z0-9]' | sort -u |
  xargs dpkg-query -W -f '${db:Status-Status} ${binary:Package}\n' 2>/dev/null | sed -n 's/^installed //p' |
  grep -v ':i386$' | sort -u)
[ ${#names[@]} -gt 30 ] || fail "the packages of the root were not found: ${names[*]}"
dpkg-query -L "${names[@]}" | grep '^/' | grep -vE '^/usr/share/(doc|man|locale|info)/' |
  sed -E 's@^/(bin|sbin|lib|lib32|lib64|libx32)(/|$)@/usr/\1\2@' | sort -u >"$work/files"
tar -C / --no-recursion --ignore-failed-read -cf - -T "$work/files" 2>/dev/null | tar -C "$root" -xf - 2>/dev/null || true
dpkg-query -s "${names[@]}" >"$root/var/lib/dpkg/status"
for name in "${names[@]}"; do cp /var/lib/dpkg/info/"$name".* /var/lib/dpkg/info/"$name":*.* "$root/var/lib/dpkg/info/" 2>/dev/null || true; done
cp -a /etc/{passwd,group,shadow,gshadow,login.defs} "$root/etc/"
awk -F: '$3 != 0 || $1 == "root"' /etc/passwd >"$root/etc/passwd" # another root account would be the first alert
touch "$root/var/lib/dpkg/available"
install -m 600 /dev/null "$root/etc/.pwd.lock" # account tools make it, and leave it
mount -t proc proc "$root/proc"
mkdir -p "$root/dev" && touch "$root/dev/null" && mount --bind /dev/null "$root/dev/null"
cp "$agent_package" "$root/tmp/now.deb"

inside() { env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive chroot "$root" "$@"; }
run_dpkg() { inside dpkg --force-confdef "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2 && fail "dpkg $*"; }; }
state() { inside dpkg-query -W -f '${db:Status-Status} ${Version}' velta-agent 2>/dev/null || echo none; }
# Everything that there is, without what dpkg and others write of their own doings.
files() {
  find "$root" -xdev \( -path "$root/var/lib/dpkg" -o -path "$root/proc" -o -path "$root/dev" -o -path "$root/var/log" \
    -o -path "$root/var/lib/systemd" \) -prune -o -printf '%P %M %U:%G\n' | sort
  find "$root/var/lib/systemd" ! -type d -printf '%P\n'
}
has() { [ -e "$root$1" ] || fail "$2: there is no $1"; }
has_not() { [ ! -e "$root$1" ] && [ ! -L "$root$1" ] || fail "$2: there is still $1"; }
enabling_link=/etc/systemd/system/multi-user.target.wants/velta-agent.service
before=$(files)
version=$(dpkg-deb -f "$agent_package" Version)

# What somebody does who finds no fault with it: the installed agent, as an ordinary user, sees a real useradd.
sees_a_root_account() {
  local alert code=0
  mkfifo "$root/tmp/alerts"
  exec 3<>"$root/tmp/alerts"
  chroot --userspec=65534:65534 "$root" /usr/bin/velta-agent --policy /etc/velta-agent/policy.json --no-cross-check \
    >&3 2>"$work/agent.log" &
  inside useradd -o -u 0 -M "$1" 2>/dev/null
  IFS= read -r -t $patience alert <&3 || { cat "$work/agent.log" >&2 && fail "no alert for $1"; }
  [[ $alert == *'"eventType":"unauthorized-root-user"'*"\"userName\":\"$1\",\"uid\":0,"* ]] || fail "another alert: $alert"
  echo "$alert"
  keep_events <<<"$alert"
  kill $!
  wait $! || code=$?
  [ $code -eq 0 ] || fail "the agent ended with code $code"
  inside sed -i "/^$1:/d" /etc/passwd /etc/shadow /etc/group /etc/gshadow /etc/subuid /etc/subgid 2>/dev/null || true
  exec 3>&-
  rm "$root/tmp/alerts"
}

# --- Without systemd: installed, ready for a start to come, purged without a trace
accounts=$(cat "$root"/etc/{passwd,shadow})
run_dpkg -i /tmp/now.deb
same "the state after the installation" "installed $version" "$(state)"
[ -L "$root$enabling_link" ] || fail "the unit is not enabled"
sees_a_root_account toor
rm -f "$root"/etc/{passwd,shadow,group,gshadow}- "$root"/etc/{passwd,shadow,group,gshadow,subuid,subgid}.lock
same "the accounts after the test's own" "$accounts" "$(cat "$root"/etc/{passwd,shadow})"
run_dpkg --purge velta-agent
same "the state after the purge" none "$(state)"
same "everything after the purge" "$before" "$(files)"

# --- With systemd, which writes down what it is asked
cat >"$root/usr/bin/systemctl" <<'EOF'
#!/bin/sh
echo "$*" >>/var/log/asked-of-systemd
case "$*" in
  *" preset "*) mkdir -p /etc/systemd/system/multi-user.target.wants &&
    ln -s /lib/systemd/system/velta-agent.service /etc/systemd/system/multi-user.target.wants/ ;;
  *is-enabled*) [ -L /etc/systemd/system/multi-user.target.wants/velta-agent.service ] && echo enabled ;;
  *is-active*) [ -e /run/runs ] ;;
  *restart* | *" start "*) touch /run/runs ;;
  *stop*) rm -f /run/runs ;;
esac
EOF
chmod +x "$root/usr/bin/systemctl"
mkdir -p "$root/run/systemd/system"
before=$(files)
# What it was asked since the last time, without the questions.
asked() {
  grep -vE 'is-enabled|is-active|preset' "$root/var/log/asked-of-systemd" || true
  rm "$root/var/log/asked-of-systemd"
}

run_dpkg -i /tmp/now.deb
same "asked of systemd at the installation" "--system daemon-reload
--quiet --system start velta-agent.service" "$(asked)"

# An upgrade: the administrator's policy stays, and so does the unit's being off.
mkdir "$work/next"
dpkg-deb -R "$agent_package" "$work/next/parts"
sed -i "s/^Version: .*/&+next/" "$work/next/parts/DEBIAN/control"
echo '{ "unauthorized-root-user": {}, "of-the-next-version": {} }' >"$work/next/parts/etc/velta-agent/policy.json"
dpkg-deb --root-owner-group -Znone -b "$work/next/parts" "$root/tmp/next.deb" >/dev/null
echo '{ "unauthorized-root-user": {}, "of-the-administrator": {} }' >"$root/etc/velta-agent/policy.json"
rm "$root$enabling_link"
run_dpkg -i /tmp/next.deb
same "the state after the upgrade" "installed $version+next" "$(state)"
grep -q of-the-administrator "$root/etc/velta-agent/policy.json" || fail "the upgrade took the administrator's policy away"
has /etc/velta-agent/policy.json.dpkg-dist "the policy of the new version"
has_not "$enabling_link" "a disabled unit was enabled"
same "asked of systemd at the upgrade" "--system daemon-reload
--quiet --system restart velta-agent.service" "$(asked)"
sees_a_root_account toor2
rm -f "$root"/etc/{passwd,shadow,group,gshadow}-

# Removed: what runs is gone, what the administrator wrote stays. What the running unit would have left stays, too.
mkdir -p "$root"/var/{lib,log}/private/velta-agent
touch "$root"/var/{lib,log}/private/velta-agent/file
for folder in lib log; do ln -s private/velta-agent "$root/var/$folder/velta-agent"; done
run_dpkg --remove velta-agent
same "the state after the removal" "config-files $version+next" "$(state)"
same "asked of systemd at the removal" "stop velta-agent.service
--system daemon-reload" "$(asked)"
has_not /usr/bin/velta-agent "after the removal"
has_not /usr/lib/velta "after the removal"
has /etc/velta-agent/policy.json "after the removal"
has /var/lib/velta-agent/file "after the removal"

run_dpkg --purge velta-agent
same "the state after the second purge" none "$(state)"
for folder in lib log; do
  has_not /var/$folder/private/velta-agent "after the purge"
  has_not /var/$folder/velta-agent "after the purge"
done
rm -rf "$root"/var/{lib,log}/private
rm -f "$root/tmp/next.deb" "$root/run/runs"
same "everything after the second purge" "$before" "$(files | grep -v ' tmp/next.deb')"
