"""Restart from the sidecar and the .ivfp file, environment handling of the capacity, and
release of everything an index holds."""

import gc
import os
import threading

import numpy as np
import pytest

import orve


def test_restart_from_sidecar_and_paged_file_gives_identical_answers(rows, queries, tmp_path):
    side, paged = tmp_path / "rows.vec", tmp_path / "index.ivfp"
    ids = np.arange(len(rows)) * 3 + 11
    with orve.Index(capacity=3000, sidecar=side) as ix:
        ix.add(rows[:1000], ids=ids[:1000])
        ix.add(rows[1000:], ids=ids[1000:])
        ix.build_ivf(20, seed=5)
        ix.build_hivf(5, 4, seed=5)
        ix.write_paged(paged)
        before = {p: ix.search_batch(queries, 8, path=p, nprobe_l1=2, nprobe_l2=2)
                  for p in ("brute", "ivf", "paged")}
        before["rerank"] = ix.search_batch(queries, 8, path="brute", rerank=True)
    with orve.Index(capacity=3000, sidecar=side) as again:
        assert len(again) == len(rows)
        again.open_paged(paged)
        again.build_ivf(20, seed=5)
        for p in ("brute", "ivf", "paged"):
            after = again.search_batch(queries, 8, path=p, nprobe_l1=2, nprobe_l2=2)
            np.testing.assert_array_equal(after[0], before[p][0])
            np.testing.assert_array_equal(after[1], before[p][1])
        after = again.search_batch(queries, 8, path="brute", rerank=True)
        np.testing.assert_array_equal(after[0], before["rerank"][0])
        np.testing.assert_array_equal(after[1], before["rerank"][1])
        assert set(before["brute"][0].ravel()) <= set(ids.tolist())
        # New rows keep going to the same file.
        again.add(rows[:2], ids=[5, 6])
    with orve.Index(capacity=3000, sidecar=side) as third:
        assert len(third) == len(rows) + 2


def test_paged_file_opened_alone_after_drop(rows, queries, tmp_path):
    paged = tmp_path / "p.ivfp"
    with orve.Index(capacity=2000) as ix:
        ix.add(rows)
        ix.build_hivf(4, 4)
        ix.write_paged(paged)
        want = ix.search_batch(queries, 5, path="paged")
        memory = ix.stats["memory"]
        # The H-IVF's rows went to the file: only its 4 + 16 centroids stay in memory.
        assert memory["hivf"] == 20 * (512 + 8) and memory["flat_store"] > 0
        assert memory["paged_mapping"] == os.path.getsize(paged)
    with orve.Index(capacity=2000) as ix:
        ix.add(rows)  # same rows, same ids
        ix.drop_flat()
        ix.open_paged(paged)
        assert ix.stats["memory"]["flat_store"] == 0
        got = ix.search_batch(queries, 5, path="paged")
        np.testing.assert_array_equal(got[0], want[0])
        np.testing.assert_array_equal(got[1], want[1])


def _mapped(path):
    with open("/proc/self/maps") as f:
        maps = f.read()
    fds = []
    for fd in os.listdir("/proc/self/fd"):
        try:
            fds.append(os.readlink(f"/proc/self/fd/{fd}"))
        except OSError:
            pass
    return str(path) in maps, any(str(path) in t for t in fds)


def test_garbage_collected_index_releases_file_and_mapping(rows, tmp_path):
    paged, side = tmp_path / "gc.ivfp", tmp_path / "gc.vec"
    ix = orve.Index(capacity=2000, sidecar=side)
    ix.add(rows)
    ix.build_hivf(4, 4)
    ix.write_paged(paged)
    assert _mapped(paged) == (True, True)
    assert _mapped(side)[1]
    del ix
    gc.collect()
    assert _mapped(paged) == (False, False)
    assert not _mapped(side)[1]


def test_capacity_applies_to_one_create_and_env_is_restored(rows, monkeypatch):
    monkeypatch.setenv("ORVE_VECTOR_CAPACITY", "3")
    with orve.Index(capacity=6) as ix:
        ix.add(rows[:6])
        with pytest.raises(orve.Error):
            ix.add(rows[:1])
    assert os.environ["ORVE_VECTOR_CAPACITY"] == "3"
    with orve.Index() as ix:  # the environment's value again
        ix.add(rows[:3])
        with pytest.raises(orve.Error):
            ix.add(rows[:1])


def test_concurrent_creates_get_their_own_capacity(rows):
    errors = []

    def worker(cap):
        try:
            for _ in range(5):
                with orve.Index(capacity=cap) as ix:
                    ix.add(rows[:cap])
                    try:
                        ix.add(rows[:1])
                        errors.append(f"capacity {cap} accepted one row more")
                    except orve.Error:
                        pass
        except Exception as e:  # noqa: BLE001 - reported below
            errors.append(repr(e))

    threads = [threading.Thread(target=worker, args=(c,)) for c in (2, 3, 5, 7, 11, 13)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []


def test_stale_paged_file_is_never_searched_silently(rows, queries, tmp_path):
    paged = tmp_path / "p.ivfp"
    new_row = rows[1200]  # its own best match once added, with id 1201
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:1200])
        ix.build_hivf(4, 4)
        ix.write_paged(paged)
        ix.add(rows[1200:1201])
        for path in ("paged", "hivf"):
            with pytest.raises(orve.Error, match="stale: it misses 1 rows"):
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
        with pytest.raises(orve.Error) as e:  # nothing current can answer: no stale answer
            ix.search(new_row, 3)
        assert e.value.code == -7


def _truncated(src, dst):
    dst.write_bytes(src.read_bytes()[:100_000])
    return dst


@pytest.mark.parametrize("rows_added, ids, message", [
    (1200, np.arange(1200) + 7, "written for other data: 1200 of its 1200 rows carry another id"),
    (1100, None, "indexes 1200 rows, but this index holds 1100"),
    (1200, "truncated", "not a usable paged file: leaf slot"),
])
def test_open_paged_refuses_a_file_of_other_rows(rows, queries, tmp_path, rows_added, ids,
                                                 message):
    paged = tmp_path / "p.ivfp"
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:1200])
        ix.build_hivf(4, 4)
        ix.write_paged(paged)
    if isinstance(ids, str):
        paged, ids = _truncated(paged, tmp_path / "cut.ivfp"), None
    with orve.Index(capacity=2000) as ix:
        ix.add(rows[:rows_added], ids=ids)
        with pytest.raises(orve.Error, match=message):
            ix.open_paged(paged)
        with pytest.raises(orve.Error, match="no paged file attached"):
            ix.search(queries[0], 3, path="paged")


def test_version_is_the_projects():
    # The package reports the library's version; both must follow the project's own number.
    cmake = (os.path.dirname(__file__) + "/../../CMakeLists.txt")
    with open(cmake) as f:
        project_line = next(line for line in f if line.startswith("project("))
    assert f"VERSION {orve.__version__} " in project_line
