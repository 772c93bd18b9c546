"""A sample of the calls that may fail; the soak run takes all of them."""

import unittest

from .faults import OneCallFails as _OneCallFails


class OneCallFails(_OneCallFails):
    SAMPLE = 8

    def test_an_edge_gets_over_a_call_that_fails(self):
        self.assertGreater(self.calls, 100)
        self.assert_recovers(range(3, self.calls, max(1, self.calls // self.SAMPLE)))


if __name__ == "__main__":
    unittest.main()
