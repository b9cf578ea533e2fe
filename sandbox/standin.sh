#!/bin/sh
# Stands in for dpkg and the appliance's tools. Each start tells the system log
# (user.notice) what it found, as one line:
#   NAME ARGUMENTS | VARIABLES WITH A VALUE | DIRECTORY | DESCRIPTORS | leader or not
# each descriptor it inherited as N<target (read-only), N>target (write-only)
# or N<>target, a run of one target as N-M<>target. Then, where a file among
# its arguments holds a line "standin NAME: COMMAND", it says so on standard
# error and runs the shell COMMAND ("exit 1", say); it exits 0 otherwise.
name=${0##*/}
# Looked at from a child, as this shell's own descriptors would show up.
sh -c 'p=$1 fds= prev= first= last=
flush() { [ -z "$prev" ] || fds="$fds $first$([ "$last" = "$first" ] || echo "-$last")$prev"; }
for fd in $(ls /proc/$p/fd | sort -n); do
    t=$(readlink /proc/$p/fd/$fd) || continue
    while read -r key flags; do [ "$key" = flags: ] && break; done < /proc/$p/fdinfo/$fd
    [ $((0$flags & 02000000)) -eq 0 ] || continue  # close-on-exec: the shell'"'"'s own
    case $t in pipe:*) t=pipe ;; socket:*) t=socket ;; *" (deleted)") t=deleted ;; esac
    case $((0$flags & 3)) in 0) t="<$t" ;; 1) t=">$t" ;; *) t="<>$t" ;; esac
    [ "$t" = "$prev" ] && [ "$fd" -eq $((last + 1)) ] && last=$fd && continue
    flush
    prev=$t first=$fd last=$fd
done
flush
vars=$(tr "\0" "\n" < /proc/$p/environ | sed -n "s/=..*//p" | sort | paste -sd " ")
read -r stat < /proc/$p/stat
set -- "$2" ${stat##*) }
[ "$5" = "$p" ] && lead=leader || lead="not leader"
logger -t standin -p user.notice -- "$1 | $vars | $(readlink /proc/$p/cwd) |$fds | $lead"
' sh $$ "$name $*"
how=$(sed -n "s/^standin $name: //p" -- "$@" 2> /dev/null | head -n 1)
[ -z "$how" ] || { echo "stand-in $name: $how" >&2; eval "$how"; }
