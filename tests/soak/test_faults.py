"""Every call of lum between its start and its end fails once, one a run, as far as the time goes."""

import os
import time
import unittest

from tests.system.faults import OneCallFails as _OneCallFails


class EveryCallFails(_OneCallFails):
    def test_an_edge_gets_over_every_call_that_fails(self):
        end, number = time.monotonic() + float(os.environ.get("SOAK_MINUTES", "1")) * 60, 1
        tried = {}
        while time.monotonic() < end and number <= self.calls:
            with self.subTest(call=number):
                self.run_with(number)
            tried[self.failed_call()] = tried.get(self.failed_call(), 0) + 1
            number += 1
        print(f"{number - 1} of {self.calls} calls failed, one a run:", tried)
        self.assertGreater(number, 1)


if __name__ == "__main__":
    unittest.main()
