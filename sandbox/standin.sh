#!/bin/sh
# Stands in for dpkg and the appliance's tools in the sandbox: records how it was
# started, writes one line on each of its outputs, then ends as its package
# asks.
#
# Each call gets the directory @RECORDS@/<n>, n counting up over all the
# stand-ins of a run, holding:
#   cmdline  the interpreter, this script's path, then the arguments (NUL-separated)
#   environ  the environment it was given (NUL-separated)
#   cwd      its working directory
#   fds      "<fd> <target>" for each descriptor it inherited
#   ids      "<pid> <parent pid> <session id>"
#   pending  the earlier calls that had not yet ended when it started
#   ended    made when it ends, unless a signal ends it
# If an argument names a file holding a line "standin <name>: exit N",
# "standin <name>: kill SIGNAL" or "standin <name>: sleep N" (<name> being
# this program's base name), it ends that way (after N seconds, for sleep);
# otherwise it exits 0.
records=@RECORDS@
name=${0##*/}
how=
for arg do
    [ -f "$arg" ] && how=$(sed -n "s/^standin $name: //p" < "$arg" | head -n 1)
    [ -z "$how" ] || break
done
n=1
while ! mkdir "$records/$n" 2>/dev/null; do
    [ -d "$records" ] || exit 99
    n=$((n + 1))
done
rec=$records/$n
trap ': > "$rec/ended"' EXIT
pending=
for other in "$records"/*; do
    other=${other##*/}
    [ "$other" = "$n" ] || [ -e "$records/$other/ended" ] || pending="$pending $other"
done
echo "$pending" > "$rec/pending"
cat /proc/$$/cmdline > "$rec/cmdline"
cat /proc/$$/environ > "$rec/environ"
readlink /proc/$$/cwd > "$rec/cwd"
# Listed by a child shell that opens the record itself: a redirection here
# would show up among this shell's descriptors. The shell's own descriptors
# are close-on-exec; inherited ones never are.
sh -c '
exec > "$2"
for f in /proc/$1/fd/*; do
    fd=${f##*/}
    flags=$(sed -n "s/^flags:[[:space:]]*//p" /proc/$1/fdinfo/$fd 2>/dev/null)
    [ -n "$flags" ] && [ $((0$flags & 02000000)) -eq 0 ] && echo "$fd $(readlink "$f")"
done' sh $$ "$rec/fds"
stat=$(cat /proc/$$/stat)
set -- ${stat##*) }
echo "$$ $2 $4" > "$rec/ids"
echo "stand-in $name: to standard output"
echo "stand-in $name: to standard error" >&2
case $how in
    "exit "*) exit "${how#exit }" ;;
    "kill "*) kill -s "${how#kill }" $$ ;;
    "sleep "*) sleep "${how#sleep }" ;;
esac
exit 0
