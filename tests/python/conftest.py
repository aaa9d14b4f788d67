"""What the tests share."""

import numpy as np
import pytest
from hypothesis import settings

settings.register_profile("zel", deadline=None, derandomize=True, max_examples=60)
settings.load_profile("zel")


@pytest.fixture
def xyz():
    """Positions away from the origin of every axis, where differences are exact enough."""
    rng = np.random.default_rng(20240229)
    return (rng.uniform(0.2, 2, (300, 3)) * rng.choice([-1, 1], (300, 3))).astype(np.float32)


def raises(cases):
    """A test that each call of a table (call, error, text) raises the error, with a text that matches."""
    @pytest.mark.parametrize("case", cases, ids=map(str, range(len(cases))))
    def test(case):
        call, error, text = case
        with pytest.raises(error, match=text):
            call()
    return test
