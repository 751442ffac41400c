"""Searches from several Python threads while another ingests, rebuilds or closes, and one
batch split over the package's own threads."""

import threading

import numpy as np
import pytest

import orve
from conftest import assert_same, run_threads


def test_search_while_ingesting_and_rebuilding(rows, queries):
    extra = np.random.default_rng(5).standard_normal((600, 512)).astype(np.float32)
    known = set(range(1, 1201)) | set(range(100000, 100600))
    with orve.Index(capacity=3000) as ix:
        ix.add(rows[:1200])
        ix.build_ivf(16)

        def ingest():
            for c in range(0, 600, 50):
                ix.add(extra[c:c + 50], ids=np.arange(100000 + c, 100050 + c))
                if c == 300:
                    ix.build_ivf(16)

        def search(path):
            for i in range(40):
                ids, scores = ix.search_batch(queries[i % 12:][:3], 4, path=path)
                for r in range(len(ids)):
                    n = int((ids[r] >= 0).sum())
                    got = ids[r, :n].tolist()
                    assert set(got) <= known and len(set(got)) == n
                    assert np.isfinite(scores[r, :n]).all() and (np.diff(scores[r, :n]) <= 0).all()

        assert run_threads([ingest] + [lambda p=p: search(p) for p in ("brute", "auto", "brute")]) == []
        assert len(ix) == 1800


def test_close_while_searching(rows, queries):
    ix = orve.Index(capacity=500)
    ix.add(rows[:400])
    started = threading.Barrier(4)

    def search():
        started.wait()
        try:
            while True:
                assert len(ix.search(queries[0], 5, path="brute")[0]) == 5
        except orve.Error as e:
            assert "closed" in str(e) and e.code is None

    def close():
        started.wait()
        ix.search(queries[1], 5)  # let the others get going
        ix.close()

    assert run_threads([search, search, search, close]) == []


@pytest.mark.parametrize("threads, nq", [(2, 7), (3, 11), (3, 2)])
def test_batch_split_over_threads_answers_like_one_query_at_a_time(index, queries, threads, nq):
    index.build_ivf(16)
    q = np.concatenate([queries, queries])[:nq]
    for path in ("brute", "ivf", "auto"):
        ids, scores = index.search_batch(q, 6, path=path, nprobe=3, threads=threads)
        for i in range(nq):
            assert_same((ids[i], scores[i]), index.search(q[i], 6, path=path, nprobe=3))
