#!/bin/sh
# Stands in for dpkg and the appliance's tools: records how it was started,
# writes one line on each of its outputs, then ends as its package asks.
# Its start is also told to the system log, at user.notice, as "$0 $*", so
# that a reader of /dev/log sees it in order with everything else there.
#
# Each start gets the directory @RECORDS@/<n>, n counting up, holding:
#   cmdline  the interpreter, this script's path, then the arguments (NUL-separated)
#   environ  its environment (NUL-separated)
#   cwd      its working directory
#   fds      "<fd> <target>" for each descriptor it inherited, " (read-only)" after
#            one that cannot be written
#   ids      "<pid> <session id>"
# If an argument names a file holding a line "standin <name>: exit N", "...
# kill SIGNAL" or "... run COMMAND" (<name> being this program's base name),
# it ends that way (once COMMAND has run, for run); otherwise it exits 0.
logger -t standin -- "$0 $*" 2>/dev/null
records=@RECORDS@
name=${0##*/}
how=
# Builtins only from here to the record: a run of the tool starts dozens of
# stand-ins, and each program started costs more than the reading it saves.
for arg do
    [ -f "$arg" ] || continue
    while IFS= read -r line || [ -n "$line" ]; do
        case $line in "standin $name: "*) how=${line#"standin $name: "}; break ;; esac
    done < "$arg"
    [ -z "$how" ] || break
done
# The next number is one past those taken; a stand-in that starts meanwhile
# takes it first, and this one moves on.
set -- "$records"/*
[ -e "$1" ] || set --
n=$(($# + 1))
while ! mkdir "$records/$n" 2>/dev/null; do
    [ -d "$records" ] || exit 99
    n=$((n + 1))
done
rec=$records/$n
cat /proc/$$/cmdline > "$rec/cmdline"
cat /proc/$$/environ > "$rec/environ"
pwd -P > "$rec/cwd"
# Listed by a child shell that opens the record itself, as a redirection here
# would show up among this shell's descriptors. The shell's own descriptors
# are close-on-exec; inherited ones never are.
sh -c '
exec > "$2"
fd=-1
while [ $((fd += 1)) -lt 1024 ]; do
    [ -h /proc/$1/fd/$fd ] || continue
    while read -r key flags; do [ "$key" = flags: ] && break; done < /proc/$1/fdinfo/$fd
    [ $((0$flags & 02000000)) -eq 0 ] || continue
    mode=
    [ $((0$flags & 3)) -ne 0 ] || mode=" (read-only)"
    echo "$fd $(readlink /proc/$1/fd/$fd)$mode"
done' sh $$ "$rec/fds"
read -r stat < /proc/$$/stat
set -- ${stat##*) }
echo "$$ $4" > "$rec/ids"
echo "stand-in $name: to standard output"
echo "stand-in $name: to standard error" >&2
case $how in
    "exit "*) exit "${how#exit }" ;;
    "kill "*) kill -s "${how#kill }" $$ ;;
    "run "*) eval "${how#run }" ;;
esac
exit 0
