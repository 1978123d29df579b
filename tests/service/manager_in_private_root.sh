#!/bin/bash
# Called by runs_as_the_unit_says.sh in namespaces of its own: makes a root in memory, moves into it, and becomes
# systemd. From the machine only /usr is there, below a layer that takes what is written.
set -eu
root=$1 out=$2 tree=$3 driver=$4

mount -t tmpfs -o mode=755 tmpfs "$root"
cd "$root"
mkdir -p upper work usr etc proc sys dev run tmp var/log var/lib root home out old
chmod 1777 tmp
mount -t overlay -o "lowerdir=/usr,upperdir=$root/upper,workdir=$root/work" overlay usr
for link in bin sbin lib lib32 lib64 libx32; do
  if [ -L "/$link" ]; then cp -a "/$link" .; fi
done
for part in passwd group shadow gshadow login.defs ld.so.cache ld.so.conf ld.so.conf.d nsswitch.conf default pam.d \
  security localtime os-release skel; do
  if [ -e "/etc/$part" ]; then cp -a "/etc/$part" etc/; fi
done
echo 0123456789abcdef0123456789abcdef >etc/machine-id
cp -r "$tree/." .
mkdir units
cp usr/lib/systemd/system/velta-agent.service units/
cp usr/local/lib/systemd/system/velta-agent.service units/velta-agent-elsewhere.service
cp "$driver" driver.sh

mount --bind "$out" out

mount -t tmpfs -o mode=755 tmpfs dev
for device in null zero full random urandom tty; do
  : >"dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
: >dev/console # what the manager says, on the terminal that it was given
mount --bind "$(tty)" dev/console
ln -s pts/ptmx dev/ptmx
mkdir dev/shm dev/pts dev/mqueue dev/hugepages
mount -t devpts -o newinstance,ptmxmode=666,mode=620 devpts dev/pts
mount -t proc proc proc
mount --bind proc/sys proc/sys
mount -o remount,bind,ro proc/sys
if [ -e proc/sysrq-trigger ]; then mount --bind /dev/null proc/sysrq-trigger; fi
mount -t sysfs -o ro sysfs sys
mount -t tmpfs tmpfs sys/fs
mkdir sys/fs/cgroup
mount -t cgroup2 cgroup2 sys/fs/cgroup

# The units of this folder, and no others: those of the machine would tidy up, mount and set what they know.
cat >units/basic.target <<'X'
[Unit]
Description=Nothing but the test
X
cp units/basic.target units/sysinit.target
cp units/basic.target units/shutdown.target
cp units/basic.target units/umount.target
cp units/basic.target units/final.target
cat >units/driver.service <<'X'
[Unit]
DefaultDependencies=no
[Service]
Type=simple
ExecStart=/bin/bash /driver.sh
StandardOutput=null
StandardError=null
X

pivot_root . old
cd /
umount -l /old
rmdir /old
: >/out/ready
exec env -i PATH=/usr/sbin:/usr/bin container=test SYSTEMD_UNIT_PATH=/units SYSTEMD_GENERATOR_PATH=/nowhere \
  SYSTEMD_ENVIRONMENT_GENERATOR_PATH=/nowhere SYSTEMD_LOG_TARGET=console \
  /lib/systemd/systemd --system --unit=driver.service --log-level=info --show-status=no
