"""Drives what this system is made of, and what stands around it: daemons, buses, cameras, servers.

Tests, the demo and the benchmarks import it, with the tree's root on sys.path: the settings of pytest say so, and the
commands in scripts/ and bench/ set PYTHONPATH.
"""
