"""Tests that take as long as they are given; run by `./test --soak MINUTES`."""
