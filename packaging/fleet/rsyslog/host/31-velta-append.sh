# Run by 31-velta-from-syslog.conf: appends each line of standard input to the file, and answers OK when it is there.
# The file is opened for each, so it can be rotated. When a line could not be written, or nobody knows as rsyslogd has
# just started, half of a line may stand at the end: the next one begins with a line feed, and empty lines are not sent.
umask 027
line_feed='
'
begin=$line_feed
echo OK
while IFS= read -r event; do
  mkdir -p "${VELTA_EVENTS_FILE%/*}"
  if printf '%s%s\n' "$begin" "$event" >>"$VELTA_EVENTS_FILE"; then
    begin=
    echo OK
  else
    begin=$line_feed
    echo "not written"
  fi
done
