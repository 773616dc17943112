#!/usr/bin/env python3
"""Checks that every README code block marked with
<!-- example: <file> [<snippet>] --> equals that snippet of the example: the
lines between the two "//! [<snippet>]" markers, without their common indent.
Usage: check_readme.py README.md examples/ [--update]
With --update the README's blocks are rewritten from the examples instead."""
import re
import sys

MARK = re.compile(r'<!-- example: (\S+) \[(\w+)\] -->\n```cpp\n(.*?)\n```', re.S)


def snippet(path, name):
    lines, inside = [], False
    with open(path, encoding='utf-8') as source:
        for line in source.read().split('\n'):
            if line.strip() == '//! [%s]' % name:
                if inside:
                    break
                inside = True
            elif inside:
                lines.append(line)
    if not lines:
        return None
    indent = min(len(l) - len(l.lstrip()) for l in lines if l.strip())
    return '\n'.join(l[indent:] for l in lines)


def update(readme, examples):
    with open(readme, encoding='utf-8') as text:
        content = text.read()

    def quote(match):
        code = snippet('%s/%s' % (examples, match.group(1)), match.group(2))
        return '<!-- example: %s [%s] -->\n```cpp\n%s\n```' % (match.group(1), match.group(2),
                                                              code if code else match.group(3))
    with open(readme, 'w', encoding='utf-8') as text:
        text.write(MARK.sub(quote, content))


def main(readme, examples):
    with open(readme, encoding='utf-8') as text:
        blocks = MARK.findall(text.read())
    failures = 0
    for path, name, quoted in blocks:
        expected = snippet('%s/%s' % (examples, path), name)
        if expected != quoted:
            print('README block %s [%s] differs from the example (or the snippet is missing)'
                  % (path, name))
            failures += 1
    print('%d README blocks checked, %d differ' % (len(blocks), failures))
    return 1 if failures or not blocks else 0


if __name__ == '__main__':
    if sys.argv[3:] == ['--update']:
        update(sys.argv[1], sys.argv[2])
    sys.exit(main(sys.argv[1], sys.argv[2]))
