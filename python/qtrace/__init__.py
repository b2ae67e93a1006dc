"""Instruction traces in Python.

`qtrace.plain` reads trace files in plain Python, item by item; see its help.
"""
