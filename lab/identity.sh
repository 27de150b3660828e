# shellcheck shell=bash
# The identity init gives the daemon on a phone, read from the .rc that ships
# (device/probemond.rc), so that the lab runs it as the phone does. Source it;
# then
#   LAB_ANDROID_ID[NAME]   the Android IDs the lab knows (system, shell, ...)
#   lab_read_identity      reads the service's user, group and capabilities lines:
#     LAB_DAEMON_UID LAB_DAEMON_GID   its user and first group
#     LAB_DAEMON_GROUPS               the other groups' ids, as listed
#     LAB_DAEMON_CAPS                 its capabilities, lower case (net_admin ...)
#     LAB_DAEMON_LAUNCH               setpriv with that identity, then "--"
#   lab_read_identity -CAP...         the same, without those capabilities
# It fails, naming it, on a name the lab does not know.
declare -gA LAB_ANDROID_ID=([system]=1000 [shell]=2000 [inet]=3003 [net_raw]=3004 [net_admin]=3005)

lab_read_identity() {
    local rc="${PROBEMOND_SOURCE_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)}/device/probemond.rc"
    local key rest in=0 user="" groups=() caps=() drop=("${@#-}") g c id
    [ -r "$rc" ] || { echo "lab: cannot read $rc" >&2; return 1; }
    while read -r key rest; do
        rest="${rest%%#*}"
        case "$key" in
            service) [[ "$rest" == "probemond "* ]] && in=1 || in=0 ;;
            on|import) in=0 ;;
        esac
        [ $in -eq 1 ] || continue
        case "$key" in
            user) user="$rest" ;;
            group) read -ra groups <<<"$rest" ;;
            capabilities) read -ra caps <<<"${rest,,}" ;;
        esac
    done <"$rc"
    for id in "$user" "${groups[@]}"; do
        [ -n "${LAB_ANDROID_ID[$id]:-}" ] || { echo "lab: $rc names '$id', an Android ID the lab does not know" >&2; return 1; }
    done
    [ ${#groups[@]} -gt 0 ] || groups=("$user")  # init's default group is the user's
    LAB_DAEMON_UID="${LAB_ANDROID_ID[$user]}" LAB_DAEMON_GID="${LAB_ANDROID_ID[${groups[0]}]}"
    LAB_DAEMON_GROUPS=() LAB_DAEMON_CAPS=()
    for g in "${groups[@]:1}"; do LAB_DAEMON_GROUPS+=("${LAB_ANDROID_ID[$g]}"); done
    for c in "${caps[@]}"; do [[ " ${drop[*]} " == *" $c "* ]] || LAB_DAEMON_CAPS+=("$c"); done
    # Ambient capabilities must be inheritable too; init also takes every
    # other capability out of the bounding set. setpriv raises the ambient
    # set after it changed the uid, which would otherwise clear it.
    local set="-all"
    for c in "${LAB_DAEMON_CAPS[@]}"; do set+=",+$c"; done
    local supp="--clear-groups"
    [ ${#LAB_DAEMON_GROUPS[@]} -eq 0 ] || supp="--groups=$(IFS=,; echo "${LAB_DAEMON_GROUPS[*]}")"
    LAB_DAEMON_LAUNCH=(setpriv --reuid="$LAB_DAEMON_UID" --regid="$LAB_DAEMON_GID" "$supp"
                       --inh-caps="$set" --ambient-caps="$set" --bounding-set="$set" --)
}
