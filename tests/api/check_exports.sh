#!/bin/sh
# The export list of the shared library: the C names and their Fortran aliases
# of the parameter routines, nothing of the C++ internals, and never a plain
# `getchar` (it would shadow the C library's).
# Usage: check_exports.sh <path of libkorn.so> <reference list of the registry>
set -u
lib="$1"
ref="$2"
syms=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | sort -u) || exit 1
[ -n "$syms" ] || { echo "no exported symbols in $lib"; exit 1; }
status=0

for s in setdble setdble_ getdble getdble_ setinteger setinteger_ getinteger getinteger_ \
         setlogical setlogical_ getlogical getlogical_ setchar setchar_ korn_getchar getchar_ \
         setany setany_ getany getany_ korn_reset_parameters korn_reset_parameters_ \
         korn_parameter_type korn_parameter_type_ korn_attach_unit korn_attach_unit_ \
         korn_detach_unit korn_describe_error \
         korn_set_nmin_matrix korn_set_nmin_matrix_ korn_get_nmin_matrix korn_get_nmin_matrix_ \
         korn_set_conv_stop korn_get_backup_ korn_set_logfile korn_get_logfile_; do
  printf '%s\n' "$syms" | grep -qx "$s" || { echo "missing export: $s"; status=1; }
done

# Read-only values have no accessors; the C library's getchar is not ours.
for s in getchar korn_set_ecg korn_set_ncg korn_get_nwt; do
  printf '%s\n' "$syms" | grep -qx "$s" && { echo "unexpected export: $s"; status=1; }
done

# One set and one get accessor, each with its Fortran alias, per settable
# parameter of the reference list (the names in braces of its four tables).
names=$(grep -o '{"[a-z0-9_]*"' "$ref" | tr -d '{"' | sort -u)
count=$(printf '%s\n' "$names" | wc -l)
[ "$count" -eq 283 ] || { echo "reference list has $count names, expected 283"; status=1; }
tmp=$(mktemp -d) || exit 1
trap 'rm -rf "$tmp"' EXIT
printf '%s\n' "$syms" > "$tmp/syms"
for n in $names; do
  case " ecg etr ewt ncg nrc nrd nru ntr nwt wft " in *" $n "*) continue ;; esac
  printf 'korn_set_%s\nkorn_set_%s_\nkorn_get_%s\nkorn_get_%s_\n' "$n" "$n" "$n" "$n"
done > "$tmp/accessors"
[ "$(wc -l < "$tmp/accessors")" -eq 1092 ] || { echo "expected 273 settable parameters"; status=1; }
missing=$(grep -vxF -f "$tmp/syms" "$tmp/accessors")
[ -z "$missing" ] || { echo "missing accessors:"; printf '%s\n' "$missing"; status=1; }

# Nothing outside the interface's prefixes, no C++ names.
bad=$(printf '%s\n' "$syms" |
      grep -Ev '^(korn|setdble|getdble|setinteger|getinteger|setlogical|getlogical|setchar|setany|getany|lmg|LMG|ssc|SSC)' |
      grep -vx 'getchar_')
[ -z "$bad" ] || { echo "exports outside the interface:"; printf '%s\n' "$bad"; status=1; }
mangled=$(printf '%s\n' "$syms" | grep '^_Z')
[ -z "$mangled" ] || { echo "C++ symbols exported:"; printf '%s\n' "$mangled"; status=1; }

[ $status -eq 0 ] && echo "exports: ok ($(printf '%s\n' "$syms" | wc -l) symbols)"
exit $status
