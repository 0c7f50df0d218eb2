#!/usr/bin/env python3
"""Packs folders into one ZIP, the same bytes each time: make_zip.py OUT ROOT FOLDER...

In it everything is below the folder ROOT, sorted, with the time of SOURCE_DATE_EPOCH.
"""
import os
import pathlib
import sys
import time
import zipfile

out, root, *folders = sys.argv[1:]
moment = time.gmtime(int(os.environ["SOURCE_DATE_EPOCH"]))[:6]
files = {}
for folder in map(pathlib.Path, folders):
    files.update({f"{root}/{path.relative_to(folder).as_posix()}": path for path in folder.rglob("*") if path.is_file()})
with zipfile.ZipFile(out, "w") as archive:
    for name in sorted(files):
        entry = zipfile.ZipInfo(name, moment)
        entry.compress_type = zipfile.ZIP_DEFLATED
        entry.create_system = 0  # FAT: no Unix permissions.
        archive.writestr(entry, files[name].read_bytes(), compresslevel=9)
