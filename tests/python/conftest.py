"""Shared helpers of the orve Python tests: data, and independent numpy models of the library's
int8 scoring and of exact float neighbours, used as the references for results."""

import threading

import numpy as np
import pytest

import orve

DIM = 512


def unit_rows(rng, n):
    return rng.standard_normal((n, DIM)).astype(np.float32)


def np_quantize(x):
    """Reference int8 quantisation of rows of float32 (n, 512): codes, scales, norms,
    computed in single precision the documented way (sequential sum of squares)."""
    x = np.atleast_2d(np.asarray(x, dtype=np.float32))
    m = np.abs(x).max(axis=1)
    norms = np.sqrt(np.cumsum(x * x, axis=1, dtype=np.float32)[:, -1]).astype(np.float32)
    small = m < np.float32(1e-12)
    scales = np.where(small, np.float32(0), np.float32(127.0) / np.where(small, 1, m))
    scales = scales.astype(np.float32)
    codes = np.rint(np.clip((x * scales[:, None]).astype(np.float32), -127, 127)).astype(np.int8)
    return codes, scales, norms


def np_int8_cosines(query, rows_q):
    """int8 cosine of one float32 query against quantised rows (codes, scales, norms)."""
    codes, scales, norms = rows_q
    qc, qs, qn = np_quantize(query)
    dots = codes.astype(np.int32) @ qc[0].astype(np.int32)
    d = ((qs[0] * scales).astype(np.float32) * qn[0]).astype(np.float32)
    d = (d * norms).astype(np.float32)
    with np.errstate(divide="ignore", invalid="ignore"):
        return np.where(d > 0, dots.astype(np.float32) / d, np.float32(0)).astype(np.float32)


def np_topk(scores, ids, k, min_similarity=-np.inf):
    """Best k by score descending, ties to the lower row."""
    keep = np.nonzero(scores >= np.float32(min_similarity))[0]
    order = keep[np.lexsort((keep, -scores[keep]))][:k]
    return np.asarray(ids)[order].astype(np.int64), scores[order]


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
    """Runs the callables in threads; the exceptions any of them raised."""
    failures = []

    def guarded(fn):
        try:
            fn()
        except BaseException as e:  # noqa: BLE001 - reported by the caller
            failures.append(repr(e))

    threads = [threading.Thread(target=guarded, args=(t,)) for t in targets]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return failures


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
