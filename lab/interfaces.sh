# shellcheck shell=bash
# Reads lab/interfaces. Source it; then
#   LAB_IFACES        the names, in the registry's order
#   LAB_OCTET[NAME]   LAB_FWMARK[NAME]   LAB_PRIORITY[NAME]   that line's columns
#   lab_ifaces_sorted the names in name order (the daemon's interface map's)
LAB_IFACES=()
unset LAB_OCTET LAB_FWMARK LAB_PRIORITY
# -g: the arrays stay global when a function sources this file.
declare -gA LAB_OCTET=() LAB_FWMARK=() LAB_PRIORITY=()
while read -r _name _octet _mark _prio _; do
    case "$_name" in ""|"#"*) continue ;; esac
    LAB_IFACES+=("$_name")
    LAB_OCTET[$_name]="$_octet" LAB_FWMARK[$_name]="$_mark" LAB_PRIORITY[$_name]="$_prio"
done <"$(dirname "${BASH_SOURCE[0]}")/interfaces"
unset _name _octet _mark _prio

lab_ifaces_sorted() { printf '%s\n' "${LAB_IFACES[@]}" | LC_ALL=C sort; }
