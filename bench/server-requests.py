#!/usr/bin/env python3
"""Counts what a service's process asks Wine's server from its start until it says that it runs.

server-requests.py TRACE, the output of `wineserver -d1` while `start_latency --once ...` ran."""
import collections
import re
import sys

LINE = re.compile(r'^([0-9a-f]{4}): (\w+)\((.*)')
thread_of = {}  # Thread to process.
requests = collections.defaultdict(collections.Counter)
for line in open(sys.argv[1], encoding='latin-1'):
    match = LINE.match(line)
    if not match:
        continue
    thread, name, rest = match.groups()
    if rest.startswith(') = '):
        if name == 'init_first_thread':
            thread_of[thread] = re.search('pid=([0-9a-f]+)', rest)[1]
            requests[thread_of[thread]][name] += 1
        elif name == 'new_thread':
            started = re.search('tid=([0-9a-f]+)', rest)
            if started and thread in thread_of:
                thread_of[started[1]] = thread_of[thread]
        continue
    process = thread_of.get(thread)
    if process is None or name == 'init_first_thread':
        continue
    if name == 'open_event' and 'TxBenchRunning' in rest:
        counts = requests[process]
        print(sum(counts.values()))
        if '--all' in sys.argv:
            for name, count in counts.most_common():
                print(f'  {count:5} {name}')
        break
    requests[process][name] += 1
else:
    sys.exit('no service said that it runs')
