#!/usr/bin/env python3
"""Turns the benchmarks' rows (see bench_support.h) into one table on standard output.

Each figure is the median of its runs with the smallest and largest beside it; a ratio is taken
within each run (the cases of one run ran side by side) and its median is held against the aim.
Notes are listed under the table; any other line is passed through as it is.
"""
import statistics
import sys


def number(v):
    return '%.0f' % v if v >= 100 else '%.2f' % v if v < 10 else '%.1f' % v


rows, notes = [], []
for line in sys.stdin:
    line = line.rstrip('\n')
    parts = line.split('|')
    if parts[0] == 'row' and len(parts) == 6:
        rows.append(parts[1:])
    elif parts[0] == 'note' and len(parts) >= 2:
        notes.append('|'.join(parts[1:]))
    elif line.strip():
        print(line)

if rows:
    width = max(len(r[0]) for r in rows)
    print('%-*s  %-28s  %-20s  %-7s  %s' % (width, 'figure', 'median (min-max)', 'ratio (min-max)', 'aim', 'result'))
    for figure, unit, values, ratios, aim in rows:
        values = [float(v) for v in values.split(',') if v]
        ratios = [float(v) for v in ratios.split(',') if v]
        value = '%s %s (%s-%s)' % (number(statistics.median(values)), unit, number(min(values)),
                                   number(max(values))) if values else 'FAILED'
        ratio = '%.2f (%.2f-%.2f)' % (statistics.median(ratios), min(ratios), max(ratios)) if ratios else ''
        result = ''
        if aim and ratios:
            got, want = statistics.median(ratios), float(aim)
            result = 'met' if got >= want else 'missed by %.0f %%' % (100 * (1 - got / want))
        if values and 0 in values:
            result = 'FAILED in %d of %d runs' % (values.count(0), len(values))
        print(('%-*s  %-28s  %-20s  %-7s  %s' % (width, figure, value, ratio, '>= ' + aim if aim else '', result)).rstrip())
for note in notes:
    print('  ' + note)
