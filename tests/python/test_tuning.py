"""Recall tuning and the conveniences around it: the tuned setting must actually reach the
target on the sample (checked here against numpy's exact neighbours, not the package's own
brute force), and options that cannot be honoured must be refused rather than ignored."""

import numpy as np
import pytest

import orve

DIM = 512


def clustered(rng, n, centres):
    c = rng.standard_normal((centres, DIM))
    c /= np.linalg.norm(c, axis=1, keepdims=True)
    pick = rng.integers(0, centres, n)
    return (c[pick] + rng.standard_normal((n, DIM)) * (1.4 / np.sqrt(DIM))).astype(np.float32)


def exact_topk(rows, queries, k):
    r = rows / np.linalg.norm(rows, axis=1, keepdims=True)
    q = queries / np.linalg.norm(queries, axis=1, keepdims=True)
    return np.argsort(-(q @ r.T), axis=1, kind="stable")[:, :k] + 1


def recall(found, truth):
    return np.mean([len(set(f) & set(t)) / len(t) for f, t in zip(found, truth)])


@pytest.fixture(scope="module")
def data():
    rng = np.random.default_rng(7)
    rows = clustered(rng, 4000, 60)
    return rows, clustered(rng, 40, 60), rows


@pytest.mark.parametrize("path", ["ivf", "hivf", "paged"])
def test_tune_reaches_target_and_becomes_default(data, path, tmp_path):
    rows, queries, _ = data
    with orve.Index(capacity=5000, sidecar=tmp_path / "r.vec") as ix:
        ix.add(rows)
        if path == "ivf":
            ix.build_ivf(64)
        else:
            ix.build_hivf(8, 8)
        if path == "paged":
            ix.write_paged(tmp_path / "x.ivfp")
        out = ix.tune(queries, target_recall=0.95, k=10, path=path)
        assert out["path"] == path and out["recall"] >= 0.95
        # Cheapest first: every setting tried before the chosen one missed the target.
        assert all(r < 0.95 for _, r, _ in out["tried"][:-1])
        found, _ = ix.search_batch(queries, 10, path=path)   # no probe arguments: tuned default
        assert recall(found, exact_topk(rows, queries, 10)) >= 0.95
        kw = {"nprobe": out["setting"]} if path == "ivf" else dict(
            zip(("nprobe_l1", "nprobe_l2"), out["setting"]))
        assert np.array_equal(found, ix.search_batch(queries, 10, path=path, **kw)[0])


def test_tune_refuses_what_it_cannot_tune(data):
    rows, queries, _ = data
    with orve.Index(capacity=5000) as ix:
        ix.add(rows)
        with pytest.raises(orve.Error):
            ix.tune(queries)                       # nothing built: nothing to tune
        ix.build_ivf(64)
        with pytest.raises(ValueError):
            ix.tune(queries, target_recall=1.5)
        with pytest.raises(orve.Error):
            ix.tune(queries, path="hivf")          # no H-IVF built


def test_rerank_without_sidecar_raises(data):
    rows, queries, _ = data
    with orve.Index(capacity=5000) as ix:
        ix.add(rows[:100])
        for call in (lambda: ix.search(queries[0], 5, rerank=True),
                     lambda: ix.search_batch(queries, 5, rerank=True)):
            with pytest.raises(ValueError, match="sidecar"):
                call()


def test_get_contains_repr(data, tmp_path):
    rows, _, _ = data
    with orve.Index(capacity=100, sidecar=tmp_path / "r.vec") as ix:
        ix.add(rows[:3], ids=[7, 9, 11])
        assert 9 in ix and 8 not in ix and "x" not in ix
        assert np.array_equal(ix.get(11), rows[2]) and ix.get(8) is None
        ix.add(rows[3:4], ids=[9])                 # the same id again: the last row wins
        assert np.array_equal(ix.get(9), rows[3])
        assert "rows=4" in repr(ix) and "capacity=100" in repr(ix)
    with orve.Index(capacity=10) as ix:
        ix.add(rows[:1])
        with pytest.raises(orve.Error, match="sidecar"):
            ix.get(1)
