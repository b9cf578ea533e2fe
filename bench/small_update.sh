#!/bin/sh
# The same job as small_update, the way an administrator might script it:
# judge the names, install the good ones with dpkg in small-fix order, report
# the rest, and write the verdict.
dir=/smallupd@te
log=/var/log/dpkg_upgrade.log
build=$(sed -n 's/^buildnumber *= *"\{0,1\}\([^"]*\)"\{0,1\} *$/\1/p' /etc.defaults/VERSION |
    head -n 1)
list=$(mktemp)
failed=0
found=0

report() {  # message, event code, message key, package
    echo "$1" >&2
    logger -p user.err -- "$1"
    /usr/vyra/bin/vyralogset1 sys err "$2" "$4" < /dev/null > /dev/null 2>&1
    /usr/vyra/bin/vyradeknotify @administrators "$3" "$4" < /dev/null > /dev/null 2>&1
    failed=1
}

for deb in "$dir"/*.deb; do
    [ -e "$deb" ] || continue
    found=1
    name=${deb##*/}
    version=${name#*_}
    version=${version%_*}
    case $name in
        smallupdate_* | flashupdate_* | *_*_*_*) good=no ;;
        *_*_*.deb) good=yes ;;
        *) good=no ;;
    esac
    case $name in *"-$build-s"*) ;; *) good=no ;; esac
    case $version in *-s*) ;; *) good=no ;; esac
    if [ $good = yes ]; then
        number=${version##*-s}
        echo "${number%%[!0-9]*} $deb" >> "$list"
    else
        report "Unexpected Debian [$deb], skip install." 0x11B01030 \
            update:small_update_check_failed "$deb"
    fi
done
if [ $found = 0 ]; then
    rm -f "$list"
    exit 255
fi

sorted=$(mktemp)
sort -n "$list" > "$sorted"
while read -r number deb; do
    echo "$(date '+%Y/%m/%d %H:%M:%S')	 ===========[-i $deb ]===========" >> "$log"
    sync "$log"
    if ! /usr/bin/dpkg -i "$deb" >> "$log" 2>&1; then
        echo "$(date '+%Y/%m/%d %H:%M:%S')	Failed to install -i$deb" >> "$log"
        report "Failed to install [$deb]" 0x11B01031 update:small_update_install_failed "$deb"
    fi
done < "$sorted"
rm -f "$list" "$sorted"

if [ $failed = 0 ]; then
    echo "$(date '+%Y/%m/%d %H:%M:%S')	Finished critical update!!!" >> /var/log/vyraupdate.log
else
    echo "$(date '+%Y/%m/%d %H:%M:%S')	Failed to update critical update" >> /var/log/vyraupdate.log
fi
sync /var/log/vyraupdate.log
[ $failed = 0 ] || exit 255
