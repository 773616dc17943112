#!/usr/bin/env python3
"""Doxygen input filter for the public headers.

The headers document themselves in plain // comments. This filter hands them
to doxygen as documentation: a comment on its own line documents what follows
(///), one after a member on the same line documents that member (///<).
Indented comment lines (diagrams, tables, numbered invariants) keep their
layout inside a verbatim block; elsewhere text in angle brackets, as in
"<source>", is escaped so that it is not taken for an HTML tag.
"""
import re
import sys

FULL = re.compile(r'^(\s*)//(?!/)(.*)$')
TRAILING = re.compile(r'^(.*?[;,{])\s*//(?!/)\s?(.*)$')


def escape(text):
    text = re.sub(r'<([A-Za-z][^<>]*)>', r'\\<\1\\>', text)
    return text.replace('@', r'\@')


def main(path):
    out = []
    verbatim = False
    with open(path, encoding='utf-8') as source:
        for line in source.read().split('\n'):
            full = FULL.match(line)
            if full:
                indent, text = full.groups()
                preformatted = text.startswith('  ') or re.match(r'^ ?\d+\. ', text) is not None
                if preformatted and not verbatim:
                    out.append(indent + '/// \\verbatim')
                    verbatim = True
                elif not preformatted and verbatim:
                    out.append(indent + '/// \\endverbatim')
                    verbatim = False
                out.append(indent + '///' + (text if verbatim else escape(text)))
                continue
            if verbatim:
                out.append('/// \\endverbatim')
                verbatim = False
            trailing = TRAILING.match(line)
            if trailing and '"' not in trailing.group(1):
                out.append(trailing.group(1) + ' ///< ' + escape(trailing.group(2)))
            else:
                out.append(line)
    sys.stdout.write('\n'.join(out))


if __name__ == '__main__':
    main(sys.argv[1])
