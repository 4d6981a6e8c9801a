# SPDX-License-Identifier: Apache-2.0
"""What a sample says of the whole."""
import math


def bound(survivors, tried):
    """The upper 95 % bound of the share, of so many survivors among so many."""
    if survivors >= tried:
        return 1.0

    def at_most(share):  # the probability of no more survivors than these
        return sum(math.comb(tried, k) * share**k * (1 - share)**(tried - k) for k in range(survivors + 1))
    low, high = survivors / tried, 1.0
    for _ in range(60):
        middle = (low + high) / 2
        low, high = (middle, high) if at_most(middle) > 0.05 else (low, middle)
    return high
