"""Restart from the sidecar and the .ivfp file, stale indexes, environment handling of the
capacity, and release of everything an index holds."""

import gc
import os
import numpy as np
import pytest

import orve
from conftest import assert_same, run_threads

_PATHS = ("brute", "ivf", "paged", "rerank")


def _answers(ix, queries):
    return {p: ix.search_batch(queries, 8, path=p.replace("rerank", "brute"), nprobe_l1=2,
                               nprobe_l2=2, rerank=p == "rerank") for p in _PATHS}


def test_restart_from_sidecar_and_paged_file_gives_identical_answers(rows, queries, tmp_path):
    side, paged = tmp_path / "rows.vec", tmp_path / "index.ivfp"
    ids = np.arange(len(rows)) * 3 + 11
    with orve.Index(capacity=3000, sidecar=side) as ix:
        ix.add(rows[:1000], ids=ids[:1000])
        ix.add(rows[1000:], ids=ids[1000:])
        ix.build_ivf(20, seed=5)
        ix.build_hivf(5, 4, seed=5)
        ix.write_paged(paged)
        before = _answers(ix, queries)
    assert set(before["brute"][0].ravel()) <= set(ids.tolist())
    with orve.Index(capacity=3000, sidecar=side) as again:
        assert len(again) == len(rows)
        again.open_paged(paged)
        again.build_ivf(20, seed=5)
        after = _answers(again, queries)
        for p in _PATHS:
            assert_same(after[p], before[p])
        again.add(rows[:2], ids=[5, 6])  # new rows keep going to the same file
    with orve.Index(capacity=3000, sidecar=side) as third:
        assert len(third) == len(rows) + 2
    with orve.Index(capacity=3000) as alone:  # the paged file alone serves without the flat rows
        alone.add(rows, ids=ids)
        alone.drop_flat()
        alone.open_paged(paged)
        assert alone.stats["memory"]["flat_store"] == 0
        assert_same(alone.search_batch(queries, 8, path="paged", nprobe_l1=2, nprobe_l2=2),
                    before["paged"])


def _open_in_process(path):
    """Whether path is mapped, and whether a descriptor of this process refers to it."""
    with open("/proc/self/maps") as f:
        mapped = str(path) in f.read()
    fds = [os.path.realpath(f"/proc/self/fd/{fd}") for fd in os.listdir("/proc/self/fd")]
    return mapped, any(str(path) in t for t in fds)


def test_garbage_collected_index_releases_file_and_mapping(rows, tmp_path):
    paged, side = tmp_path / "gc.ivfp", tmp_path / "gc.vec"
    ix = orve.Index(capacity=2000, sidecar=side)
    ix.add(rows)
    ix.build_hivf(4, 4)
    ix.write_paged(paged)
    assert _open_in_process(paged) == (True, True) and _open_in_process(side)[1]
    del ix
    gc.collect()
    assert _open_in_process(paged) == (False, False) and not _open_in_process(side)[1]


def test_capacity_applies_to_one_create_and_env_is_restored(rows, monkeypatch):
    monkeypatch.setenv("ORVE_VECTOR_CAPACITY", "3")

    def fill(cap, rounds=5, env=False):  # exactly cap rows fit
        for _ in range(rounds):
            with orve.Index() if env else orve.Index(capacity=cap) as ix:
                ix.add(rows[:cap])
                with pytest.raises(orve.Error):
                    ix.add(rows[:1])

    fill(6, 1)
    assert os.environ["ORVE_VECTOR_CAPACITY"] == "3"
    fill(3, 1, env=True)  # the environment's value again
    assert run_threads([lambda c=c: fill(c) for c in (2, 3, 5, 7, 11, 13)]) == []


def test_stale_indexes_are_never_searched_silently(rows, queries, tmp_path):
    paged = tmp_path / "p.ivfp"
    new_row = rows[1200]  # its own best match once added, with id 1201
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:1200])
        ix.build_ivf(8)
        ix.build_hivf(4, 4)
        ix.write_paged(paged)
        ix.add(rows[1200:1201])
        for path, message in (("paged", "stale: it misses 1 rows"),
                              ("hivf", "stale: it misses 1 rows"), ("ivf", "")):
            with pytest.raises(orve.Error, match=message):
                ix.search(new_row, 3, path=path)
        assert ix.search(new_row, 3)[0][0] == 1201  # auto: brute force, not the stale file
        np.testing.assert_array_equal(ix.search_batch(queries, 5)[0],
                                      ix.search_batch(queries, 5, path="brute")[0])
        ix.build_hivf(4, 4)
        ix.write_paged(tmp_path / "again.ivfp")
        assert ix.search(new_row, 3, path="paged", nprobe_l1=4, nprobe_l2=4)[0][0] == 1201
    with orve.Index(capacity=2000) as ix:  # stale from the moment it is attached
        ix.add(rows[:1201])
        ix.open_paged(paged)
        with pytest.raises(orve.Error, match="stale"):
            ix.search(new_row, 3, path="paged")
        assert ix.search(new_row, 3)[0][0] == 1201
        ix.drop_flat()
        for call in (lambda: ix.search(new_row, 3),
                     lambda: ix.search_batch(queries[:2], 3, path="brute")):
            with pytest.raises(orve.Error) as e:  # nothing current can answer: no stale answer
                call()
            assert e.value.code == -7
        with pytest.raises(orve.Error):
            ix.add(rows[:1])


@pytest.mark.parametrize("rows_added, ids, message", [
    (1200, np.arange(1200) + 7, "written for other data: 1200 of its 1200 rows carry another id"),
    (1100, None, "indexes 1200 rows, but this index holds 1100"),
    (1200, "truncated", "not a usable paged file: leaf slot"),
])
def test_open_paged_refuses_other_rows(rows, queries, tmp_path, rows_added, ids, message):
    paged = tmp_path / "p.ivfp"
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:1200])
        ix.build_hivf(4, 4)
        ix.write_paged(paged)
    if isinstance(ids, str):
        paged.write_bytes(paged.read_bytes()[:100_000])
        ids = None
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:rows_added], ids=ids)
        with pytest.raises(orve.Error, match=message):
            ix.open_paged(paged)
        with pytest.raises(orve.Error, match="no paged file attached"):
            ix.search(queries[0], 3, path="paged")
