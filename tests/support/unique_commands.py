"""Copies a compilation database with one command for each source: unique_commands.py FROM TO

A source that several targets compile has several, and each would be linted. Precompiled headers are
left out: they are another compiler's, and a source is to include what it uses.
"""
import json
import os
import re
import sys

with open(sys.argv[1], encoding="utf-8") as database:
    commands = json.load(database)
for command in commands:
    command["command"] = re.sub(r" -Winvalid-pch -include \S+|-Xclang -include-pch -Xclang \S+ ", "",
                                command["command"])
os.makedirs(os.path.dirname(sys.argv[2]), exist_ok=True)
with open(sys.argv[2], "w", encoding="utf-8") as database:
    json.dump(list({command["file"]: command for command in reversed(commands)}.values()), database)
