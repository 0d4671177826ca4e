"""Copies a compilation database with one command for each source: unique_commands.py FROM TO

A source that several targets compile has several, and each would be linted.
"""
import json
import os
import sys

with open(sys.argv[1], encoding="utf-8") as database:
    commands = json.load(database)
os.makedirs(os.path.dirname(sys.argv[2]), exist_ok=True)
with open(sys.argv[2], "w", encoding="utf-8") as database:
    json.dump(list({command["file"]: command for command in reversed(commands)}.values()), database)
