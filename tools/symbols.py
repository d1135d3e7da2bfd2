#!/usr/bin/env python3
"""The shared library's symbols: what it shows must be the list, no more and no less.

  symbols.py check LIBRARY              compares nm -D with tests/abi/exported_symbols.txt
  symbols.py update ARCHIVE_OR_OBJECT.. writes the list anew from what the sources mark as exported

The list is also the linker's version script, so one file says it all.
"""
import re
import subprocess
import sys
from pathlib import Path

LIST = Path(__file__).resolve().parent.parent / 'tests/abi/exported_symbols.txt'
HEADER = """# What libvexupnpcp.so shows, one mangled name a line, the readable name above it.
# Written by tools/symbols.py update; read by the linker and by tools/symbols.py check.
"""
PLAIN_HEADER = LIST.parent.parent.parent / 'include/vexupnpcp/generic_cp.h'


def run(*command, text=None):
    return subprocess.run(command, check=True, capture_output=True, text=True, input=text).stdout


def listed():
    return {line for line in LIST.read_text().splitlines() if line and not line.startswith('#')}


def shown(library):
    names = set()
    for line in run('nm', '-D', '--defined-only', library).splitlines():
        kind, name = line.split()[-2:]
        name = name.split('@')[0]
        if kind != 'A' and name:
            names.add(name)
    return names


def plain_functions():
    text = PLAIN_HEADER.read_text()
    return set(re.findall(r'VEX_EXPORT[^;(]*?\b(\w+)\(', text))


def exported_by(objects):
    """Default-visibility symbols of our namespaces; Boost's and the standard library's stay in."""
    plain = plain_functions()
    candidates = set()
    for line in run('readelf', '-sW', '--', *objects).splitlines():
        fields = line.split()
        if len(fields) < 8 or fields[5] != 'DEFAULT' or fields[6] == 'UND':
            continue
        if fields[4] == 'GLOBAL' or (fields[4] == 'WEAK' and fields[7].startswith(('_ZTV', '_ZTI', '_ZTS'))):
            candidates.add(fields[7])
    names = sorted(candidates)
    readable = run('c++filt', text='\n'.join(names)).splitlines()
    for name, text in zip(names, readable):
        ours = re.match(r'((vtable|typeinfo|typeinfo name|VTT) for )?vex_upnp::', text)
        if name in plain or ours:
            yield name, text


def main():
    if len(sys.argv) < 3:
        print(__doc__)
        return 2
    if sys.argv[1] == 'update':
        lines = [f'# {text}\n{name}' for name, text in exported_by(sys.argv[2:])]
        LIST.write_text(HEADER + '\n'.join(lines) + '\n')
        print(f'symbols: {len(lines)} listed')
        return 0
    missing, extra = listed() - shown(sys.argv[2]), shown(sys.argv[2]) - listed()
    for name in sorted(missing):
        print(f'listed but not shown: {name}')
    for name in sorted(extra):
        print(f'shown but not listed: {name}')
    print(f'symbols: {len(listed())} listed, {len(missing)} missing, {len(extra)} extra')
    return 1 if missing or extra else 0


if __name__ == '__main__':
    sys.exit(main())
