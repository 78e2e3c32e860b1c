#!/usr/bin/env python3
"""Reads the #include lines of every library under src/ and checks them
against the dependency table (tools/layers.txt). Exits 1 and names each
wrong-way include; 2 when the table or the tree cannot be read."""

import argparse
import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
NATIVE_X = re.compile(r'^(X11|xcb)/')
NATIVE_X_FOLDER = 'platform/x11'


def read_table(path):
    table = {}
    for number, line in enumerate(path.read_text(encoding='utf-8').splitlines(), 1):
        line = line.split('#', 1)[0].strip()
        if not line:
            continue
        if ':' not in line:
            raise ValueError(f'{path}:{number}: expected "folder: dependencies"')
        folder, rest = line.split(':', 1)
        deps = []
        for item in filter(None, (part.strip() for part in rest.split(','))):
            words = item.split()
            private = len(words) == 2 and words[0] == 'private'
            deps.append((words[-1], private))
        table[folder.strip()] = deps
    for folder, deps in table.items():
        for dep, _ in deps:
            if dep not in table:
                raise ValueError(f'{path}: {folder} depends on {dep}, which has no line')
    return table


def visible(table):
    """Every folder's own dependencies plus, transitively, their public ones."""
    def public_closure(folder, seen):
        for dep, private in table[folder]:
            if not private and dep not in seen:
                seen.add(dep)
                public_closure(dep, seen)
        return seen

    result = {}
    for folder, deps in table.items():
        allowed = {folder}
        for dep, _ in deps:
            allowed.add(dep)
            allowed |= public_closure(dep, set())
        result[folder] = allowed
    return result


def check(src, table):
    allowed = visible(table)
    problems = []
    sources = sorted(p for p in src.rglob('*') if p.suffix in ('.h', '.cpp'))
    if not sources:
        return [f'{src}: no sources found']
    for path in sources:
        folder = path.parent.relative_to(src).as_posix()
        if folder not in table:
            problems.append(f'{path}: folder {folder} has no line in the dependency table')
            continue
        for number, line in enumerate(path.read_text(encoding='utf-8', errors='replace').splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            kind, name = match.groups()
            if kind == '<':
                if NATIVE_X.match(name) and folder != NATIVE_X_FOLDER:
                    problems.append(f'{path}:{number}: <{name}> outside {NATIVE_X_FOLDER}')
                continue
            target = pathlib.PurePosixPath(name).parent.as_posix()
            if target == '.' or (src / name).exists() is False and target not in table:
                continue  # generated (moc) or third-party
            if target not in allowed[folder]:
                problems.append(f'{path}:{number}: {folder} must not include "{name}" ({target} is not among its dependencies)')
    return problems


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('--src', required=True, type=pathlib.Path)
    parser.add_argument('--table', required=True, type=pathlib.Path)
    args = parser.parse_args()
    try:
        table = read_table(args.table)
    except (OSError, ValueError) as error:
        print(f'layering: {error}', file=sys.stderr)
        return 2
    problems = check(args.src, table)
    for problem in problems:
        print(problem)
    if problems:
        print(f'layering: {len(problems)} wrong-way include(s)')
        return 1
    print(f'layering: {len(table)} libraries, every include goes the right way')
    return 0


if __name__ == '__main__':
    sys.exit(main())
