"""Shared helpers of the orve Python tests: data, and exact float neighbours computed by numpy as
the reference for results."""

from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import orve

DIM = 512


def unit_rows(rng, n):
    return rng.standard_normal((n, DIM)).astype(np.float32)


def exact_topk(rows, queries, k):
    """Row numbers (from 1) of the k exact float cosine neighbours of each query."""
    r = rows / np.linalg.norm(rows, axis=1, keepdims=True)
    return np.argsort(-(np.atleast_2d(queries) @ r.T), axis=1, kind="stable")[:, :k] + 1


def assert_same(got, want):
    """Equal ids and bit-equal scores of two (ids, scores) answers."""
    np.testing.assert_array_equal(got[0], want[0])
    np.testing.assert_array_equal(np.asarray(got[1]).view(np.uint32),
                                  np.asarray(want[1]).view(np.uint32))


def run_threads(targets):
    """Runs the callables at once, one thread each; the exceptions any of them raised."""
    with ThreadPoolExecutor(max_workers=len(targets)) as pool:
        done = [pool.submit(t) for t in targets]
    return [repr(f.exception()) for f in done if f.exception() is not None]


@pytest.fixture(scope="session")
def rng():
    return np.random.default_rng(20240611)


@pytest.fixture(scope="session")
def rows(rng):
    return unit_rows(rng, 1500)


@pytest.fixture(scope="session")
def queries(rng):
    return unit_rows(rng, 12)


@pytest.fixture
def index(rows):
    with orve.Index(capacity=4000) as ix:
        ix.add(rows)
        yield ix
