"""Fixtures shared by the end-to-end tests."""

import pytest

import certs
import simlib


@pytest.fixture
def sim_factory(tmp_path):
    """Start simulated servers; all of them are stopped after the test.

        sim = sim_factory(config=None, tree=None, root=None, addr=None,
                          start=True)

    Each call gets its own loopback address and, unless root is given, an
    empty server tree tmp_path/serverN filled from the make_tree layout
    `tree`.
    """
    if not simlib.in_netns():
        pytest.fail("end-to-end tests bind port 21 and must run inside "
                    "tests/e2e/run_in_netns.sh")
    sims = []

    def make(config=None, tree=None, root=None, addr=None, start=True):
        n = len(sims)
        root = root if root is not None else tmp_path / ("server%d" % n)
        if tree is not None:
            simlib.make_tree(root, tree)
        sim = simlib.Sim(addr or simlib.next_address(), root, config,
                         state_dir=tmp_path / ("sim%d" % n))
        sims.append(sim)
        if start:
            sim.start()
        return sim

    yield make
    for sim in sims:
        sim.stop()


def pytest_configure(config):
    config.addinivalue_line("markers", "slow: waits for real time-outs (a minute or more)")


def pytest_terminal_summary(terminalreporter, config):
    figures = getattr(config, "fault_matrix_figures", None)
    if figures:
        terminalreporter.write_line(figures)


@pytest.fixture(scope="session")
def tls_certs(tmp_path_factory):
    """The test CA and server certificates (tests/e2e/certs.py), made once."""
    return certs.make_certs(tmp_path_factory.mktemp("certs"))
