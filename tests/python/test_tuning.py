"""Recall tuning: the tuned setting must actually reach the target on the sample (checked here
against numpy's exact neighbours, not the package's own brute force) and become the default."""

import numpy as np
import pytest

import orve
from conftest import DIM, exact_topk


def clustered(rng, n, centres):
    c = rng.standard_normal((centres, DIM))
    c /= np.linalg.norm(c, axis=1, keepdims=True)
    pick = rng.integers(0, centres, n)
    return (c[pick] + rng.standard_normal((n, DIM)) * (1.4 / np.sqrt(DIM))).astype(np.float32)


@pytest.fixture(scope="module")
def data():
    rng = np.random.default_rng(7)
    return clustered(rng, 4000, 60), clustered(rng, 40, 60)


@pytest.mark.parametrize("path", ["ivf", "hivf", "paged"])
def test_tune_reaches_target_and_becomes_default(data, path, tmp_path):
    rows, queries = data
    with orve.Index(capacity=5000, sidecar=tmp_path / "r.vec") as ix:
        ix.add(rows)
        with pytest.raises(orve.Error):
            ix.tune(queries, path=path)            # nothing built: nothing to tune
        ix.build_ivf(64) if path == "ivf" else ix.build_hivf(8, 8)
        if path == "paged":
            ix.write_paged(tmp_path / "x.ivfp")
        out = ix.tune(queries, target_recall=0.95, k=10, path=path)
        assert out["path"] == path and out["recall"] >= 0.95
        # Cheapest first: every setting tried before the chosen one missed the target.
        assert all(r < 0.95 for _, r, _ in out["tried"][:-1])
        found, _ = ix.search_batch(queries, 10, path=path)   # no probe arguments: tuned default
        truth = exact_topk(rows, queries, 10)
        assert np.mean([len(set(f) & set(t)) / 10 for f, t in zip(found, truth)]) >= 0.95
        kw = {"nprobe": out["setting"]} if path == "ivf" else dict(
            zip(("nprobe_l1", "nprobe_l2"), out["setting"]))
        assert np.array_equal(found, ix.search_batch(queries, 10, path=path, **kw)[0])
        with pytest.raises(ValueError):
            ix.tune(queries, target_recall=1.5, path=path)


def test_get_and_contains(data, tmp_path):
    rows, _ = data
    with orve.Index(capacity=100, sidecar=tmp_path / "r.vec") as ix:
        ix.add(rows[:3], ids=[7, 9, 11])
        assert 9 in ix and 8 not in ix and "x" not in ix
        assert np.array_equal(ix.get(11), rows[2]) and ix.get(8) is None
        ix.add(rows[3:4], ids=[9])                 # the same id again: the last row wins
        assert np.array_equal(ix.get(9), rows[3])
