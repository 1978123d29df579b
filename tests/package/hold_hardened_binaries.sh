#!/bin/bash
# hold_hardened_binaries.sh FOLDER: reads the two binaries as they lie in the package.
source "$(dirname "$0")/common.sh"
dpkg-deb -x "$agent_package" "$work"
agent=$work/usr/bin/velta-agent
module=$work/usr/lib/velta/libvelta_detect-user.so

# must FILE READELF_OPTION REGEX WHAT
must() { readelf -W "$2" "$1" | grep -E -- "$3" >/dev/null || fail "${1##*/}: $4"; }
must_not() { ! readelf -W "$2" "$1" | grep -E -- "$3" >/dev/null || fail "${1##*/}: $4"; }

must "$agent" -h 'Type: +DYN' 'stands at a fixed address'
must "$agent" -d 'FLAGS_1.* PIE( |$)' 'is not position independent'
for file in "$agent" "$module"; do
  must "$file" -l '^ +GNU_RELRO ' 'the tables of functions can be written'
  must "$file" -d 'FLAGS.*NOW' 'functions are bound when they are first called'
  must "$file" -l '^ +GNU_STACK .* RW +0x' 'the stack can be executed'
  must_not "$file" -l '^ +LOAD .* RWE ' 'memory that can be written can be executed'
  must_not "$file" -d '(TEXTREL|RPATH|RUNPATH)' 'is changed by the loader, or has a folder of its own to look in'
  must "$file" --dyn-syms ' __stack_chk_fail@' 'no function looks after its stack'
  must_not "$file" -S ' \.(symtab|debug_info) ' 'is not stripped'
done
# Of the agent alone: the module copies nothing by the C library's functions.
must "$agent" --dyn-syms ' __[a-z_]+_chk@' 'no call is checked for the size of its target'
