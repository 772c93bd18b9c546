"""Tests of whole systems: real processes on real devices, in network namespaces."""
