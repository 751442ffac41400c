"""Searches from several Python threads while another ingests, rebuilds or closes, and one
batch split over the package's own threads."""

import threading

import numpy as np
import pytest

import orve


def _well_formed(ids, scores, k, known):
    assert ids.ndim == 1 and ids.shape == scores.shape and len(ids) <= k
    assert set(ids.tolist()) <= known
    assert len(set(ids.tolist())) == len(ids)
    assert np.isfinite(scores).all() and (np.diff(scores) <= 0).all()


def test_search_while_ingesting_and_rebuilding(rows, queries):
    extra = np.random.default_rng(5).standard_normal((600, 512)).astype(np.float32)
    all_ids = set(range(1, 1201)) | set(range(100000, 100600))
    failures = []
    done = threading.Event()
    with orve.Index(capacity=3000) as ix:
        ix.add(rows[:1200])
        ix.build_ivf(16)

        def ingest():
            try:
                for c in range(0, 600, 50):
                    ix.add(extra[c:c + 50], ids=np.arange(100000 + c, 100050 + c))
                    if c == 300:
                        ix.build_ivf(16)
            except Exception as e:  # noqa: BLE001
                failures.append(repr(e))
            finally:
                done.set()

        def search(path, rounds):
            try:
                for i in range(rounds):
                    q = queries[i % len(queries)]
                    ids, scores = ix.search(q, 10, path=path)
                    _well_formed(ids, scores, 10, all_ids)
                    bi, bs = ix.search_batch(queries[:3], 4, path=path)
                    assert bi.shape == (3, 4)
                    for r in range(3):
                        n = int((bi[r] >= 0).sum())
                        _well_formed(bi[r, :n], bs[r, :n], 4, all_ids)
            except Exception as e:  # noqa: BLE001
                failures.append(repr(e))

        workers = [threading.Thread(target=ingest)]
        workers += [threading.Thread(target=search, args=(p, 40)) for p in ("brute", "auto", "brute")]
        for t in workers:
            t.start()
        for t in workers:
            t.join()
        assert done.is_set()
        assert failures == []
        assert len(ix) == 1800


def test_close_while_searching(rows, queries):
    ix = orve.Index(capacity=500)
    ix.add(rows[:400])
    outcomes = []
    started = threading.Barrier(4)

    def search():
        started.wait()
        answered = 0
        while True:
            try:
                ids, scores = ix.search(queries[0], 5, path="brute")
                assert len(ids) == 5
                answered += 1
            except orve.Error as e:
                outcomes.append(("closed", answered, e.code))
                return
            except Exception as e:  # noqa: BLE001
                outcomes.append(("bad", repr(e)))
                return

    threads = [threading.Thread(target=search) for _ in range(3)]
    for t in threads:
        t.start()
    started.wait()
    ix.search(queries[1], 5)  # let the others get going
    ix.close()
    for t in threads:
        t.join()
    assert len(outcomes) == 3
    assert all(o[0] == "closed" and o[2] is None for o in outcomes)


@pytest.mark.parametrize("threads, nq", [(1, 5), (2, 7), (3, 11), (3, 2)])
def test_batch_split_over_threads_answers_like_one_query_at_a_time(index, queries, threads, nq):
    index.build_ivf(16)
    q = np.concatenate([queries, queries])[:nq]
    for path in ("brute", "ivf", "auto"):
        ids, scores = index.search_batch(q, 6, path=path, nprobe=3, threads=threads)
        for i in range(nq):
            want_ids, want_scores = index.search(q[i], 6, path=path, nprobe=3)
            np.testing.assert_array_equal(ids[i], want_ids)
            np.testing.assert_array_equal(scores[i].view(np.uint32), want_scores.view(np.uint32))
