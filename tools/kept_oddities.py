#!/usr/bin/env python3
"""Writes doc/kept_oddities.md from the KEPT comments in the sources: what looks wrong and is wanted."""
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def comments():
    files = subprocess.run(['git', 'grep', '-l', 'KEPT', '--', '*.cpp', '*.h', ':!tests'], cwd=ROOT,
                           check=True, capture_output=True, text=True).stdout.split()
    for name in sorted(files):
        lines = (ROOT / name).read_text(encoding='utf-8').splitlines()
        for number, line in enumerate(lines):
            if 'KEPT' not in line:
                continue
            text = [line.strip().lstrip('/').strip()]
            for following in lines[number + 1:]:
                if not following.strip().startswith('//'):
                    break
                text.append(following.strip().lstrip('/').strip())
            whole = ' '.join(text)
            yield name, whole[whole.index('KEPT'):].replace('KEPT:', '').strip()


def main():
    out = ['# Kept oddities', '',
           'What looks wrong in this system and is wanted: somebody relies on it, on the wire or in a host. Each is',
           'marked KEPT where it stands and has a test whose name begins with `Kept`. Written by',
           '`tools/kept_oddities.py`.', '', '| where | what and why |', '|---|---|']
    out += [f'| `{name}` | {text.replace("|", "&#124;")} |' for name, text in comments()]
    (ROOT / 'doc/kept_oddities.md').write_text('\n'.join(out) + '\n', encoding='utf-8')
    print(f'{len(out) - 8} oddities')


if __name__ == '__main__':
    main()
