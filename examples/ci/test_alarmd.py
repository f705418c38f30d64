# SPDX-License-Identifier: MIT
"""The daemon as pytest tests it."""
import pytest
from vxgateway_pytest import GatewayError


def test_output_and_status_follow_the_input(gateway):
    gateway.start("alarmd")
    gateway.wait("status", "alarmd/alarm", "off")
    gateway("input", 1, 1)
    gateway.wait("output", 1, 1)
    assert gateway.query("outputs")["levels"] == [1, 0]
    gateway("input", 1, 0)
    gateway.wait("status", "alarmd/alarm", "off")


def test_nonsense_is_refused(gateway):
    with pytest.raises(GatewayError) as refused:
        gateway("input", 9, 1)
    assert refused.value.status == 2
