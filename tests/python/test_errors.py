"""Bad input, closed objects and unreadable files raise clean exceptions, never crash."""

import json
import os
import subprocess
import sys

import numpy as np
import pytest

import orve
from conftest import DIM


@pytest.fixture
def small(rows):
    with orve.Index(capacity=50) as ix:
        ix.add(rows[:20])
        yield ix


_Z = np.zeros


@pytest.mark.parametrize("call", [
    *[lambda ix, rows, q, bad=bad: ix.add(bad) for bad in (
        _Z(DIM, np.float32), _Z((3, 511), np.float32), _Z((3, 513), np.float32),
        _Z((2, 3, DIM), np.float32), _Z((3, DIM), np.int32), _Z((3, DIM), np.complex64),
        _Z((0, DIM), np.float32), np.array([["a"] * DIM]), np.full((2, DIM), np.nan, np.float32),
        [[1.0, 2.0]])],
    *[lambda ix, rows, q, ids=ids: ix.add(rows[:4], ids=ids) for ids in (
        np.arange(1, 3), np.arange(0, 4), np.array([1, 2, -3, 4]), np.array([1, 2, 3, 2**32]),
        np.array([1.0, 2.0, 3.0, 4.0]), np.arange(1, 5).reshape(2, 2))],
    *[lambda ix, rows, q, bad=bad: ix.search(bad, 3) for bad in (
        _Z(511, np.float32), _Z((1, DIM), np.float32), _Z(DIM, np.int16), _Z(0, np.float32),
        np.full(DIM, np.inf))],
    *[lambda ix, rows, q, kw=kw: ix.search(q[0], **kw) for kw in (
        {"k": 0}, {"k": -1}, {"k": 2.5}, {"k": 3, "path": "lsh"},
        {"k": 3, "rerank_factor": -1}, {"k": 3, "nprobe": 0, "path": "auto"})],
    *[lambda ix, rows, q, bad=bad: ix.search_batch(bad, 3) for bad in (
        _Z((0, DIM), np.float32), _Z((2, 5), np.float32), _Z(DIM, np.float32))],
    lambda ix, rows, q: ix.search_batch(q, 3, threads=0),
])
def test_bad_arguments_raise_value_error_and_change_nothing(small, rows, queries, call):
    with pytest.raises(ValueError):
        call(small, rows, queries)
    assert len(small) == 20


def test_full_index_raises_library_error(rows):
    with orve.Index(capacity=5) as ix:
        ix.add(rows[:5])
        with pytest.raises(orve.Error) as e:
            ix.add(rows[:1])
        assert e.value.code == -1 and "load_vectors_f32" in str(e.value)
        with pytest.raises(orve.Error) as e:
            ix.add(rows[:1], ids=[99])
        assert e.value.code == -1 and "add_embedding_orve512" in str(e.value)
        assert len(ix) == 5


def test_missing_index_for_explicit_path(small, queries):
    for path in ("ivf", "hivf", "paged"):
        with pytest.raises(orve.Error) as e:
            small.search(queries[0], 3, path=path)
        assert e.value.code is None and path in str(e.value)


def test_builds_refused_with_library_code(small):
    with pytest.raises(orve.Error) as e:
        small.build_ivf(4)  # fewer than 1000 rows
    assert e.value.code == -1 and "build_ivf" in str(e.value)
    with pytest.raises(orve.Error):
        small.build_hivf(2, 2)
    with pytest.raises(ValueError):
        small.build_ivf(0)


def test_stale_ivf_is_refused_for_explicit_path(index, rows, queries):
    index.build_ivf(8)
    index.add(rows[:1])
    with pytest.raises(orve.Error):
        index.search(queries[0], 3, path="ivf")
    ids, _ = index.search(queries[0], 3)  # auto falls back to brute force
    assert len(ids) == 3


def test_closed_index_raises_everywhere(rows, queries, tmp_path):
    ix = orve.Index(capacity=10)
    ix.add(rows[:3])
    ix.close()
    ix.close()  # idempotent
    assert ix.closed
    calls = [lambda: ix.add(rows[:1]), lambda: ix.search(queries[0], 1),
             lambda: ix.search_batch(queries[:2], 1), lambda: len(ix), lambda: ix.stats,
             lambda: ix.build_ivf(2), lambda: ix.build_hivf(1, 1), lambda: ix.drop_flat(),
             lambda: ix.write_paged(tmp_path / "a.ivfp"), lambda: ix.open_paged(tmp_path / "b"),
             lambda: ix.__enter__()]
    for call in calls:
        with pytest.raises(orve.Error) as e:
            call()
        assert "closed" in str(e.value)
    with orve.Index(capacity=3) as ctx:
        pass
    assert ctx.closed


def test_unreadable_files(small, tmp_path):
    with pytest.raises(orve.Error, match="does not exist"):
        small.open_paged(tmp_path / "missing.ivfp")
    junk = tmp_path / "junk.ivfp"
    junk.write_bytes(os.urandom(5000))
    with pytest.raises(orve.Error):
        small.open_paged(junk)
    empty = tmp_path / "empty.ivfp"
    empty.write_bytes(b"")
    with pytest.raises(orve.Error):
        small.open_paged(empty)
    with pytest.raises(ValueError):
        small.open_paged("bad\0path")
    assert len(small) == 20  # the index is untouched and still usable


_WRITE_PAGED_SETUP = {
    "none": lambda ix, rows, tmp: None,
    "stale": lambda ix, rows, tmp: (ix.build_hivf(4, 4), ix.add(rows[:1])),
    "wide b1": lambda ix, rows, tmp: ix.build_hivf(orve.PAGED_MAX_BRANCHING + 1, 2),
    "wide b2": lambda ix, rows, tmp: ix.build_hivf(2, orve.PAGED_MAX_BRANCHING + 1),
    "moved": lambda ix, rows, tmp: (ix.build_hivf(4, 4), ix.write_paged(tmp / "first.ivfp")),
    "built": lambda ix, rows, tmp: ix.build_hivf(4, 4),
}


@pytest.mark.parametrize("setup, target, message", [
    ("none", "x.ivfp", "no H-IVF built"),
    ("stale", "x.ivfp", "stale .*has to be built again"),
    ("wide b1", "x.ivfp", "b1 or b2 above 64 cannot be paged"),
    ("wide b2", "x.ivfp", "b1 or b2 above 64 cannot be paged"),
    ("moved", "x.ivfp", "moved to .*first.ivfp.*has to be built again"),
    ("built", "no/dir/x.ivfp", "directory .* does not exist"),
    ("built", "adir", "not a regular file"),
])
def test_write_paged_refusal_names_the_cause_and_keeps_the_target(index, rows, tmp_path, setup,
                                                                 target, message):
    out = tmp_path / target
    (tmp_path / "adir").mkdir()
    (tmp_path / "x.ivfp").write_bytes(b"the index served until now")
    _WRITE_PAGED_SETUP[setup](index, rows, tmp_path)
    with pytest.raises(orve.Error, match=message) as e:
        index.write_paged(out)
    assert e.value.code is None
    assert (tmp_path / "x.ivfp").read_bytes() == b"the index served until now"
    assert (tmp_path / "adir").is_dir()


def test_write_paged_never_replaces_the_sidecar(rows, tmp_path):
    side = tmp_path / "rows.vec"
    with orve.Index(capacity=2000, sidecar=side) as ix:
        ix.add(rows)
        ix.build_hivf(4, 4)
        with pytest.raises(orve.Error, match="is this index's sidecar"):
            ix.write_paged(side)
    with orve.Index(capacity=2000, sidecar=side) as ix:
        assert len(ix) == len(rows)


def _sidecar_with(path, rows, n):
    with orve.Index(capacity=n, sidecar=path) as ix:
        ix.add(rows[:n])
    return path


def _damaged(tmp, rows):
    path = _sidecar_with(tmp / "rows.vec", rows, 3)
    data = bytearray(path.read_bytes())
    data[12] ^= 1  # the dimension field
    path.write_bytes(bytes(data))
    return path


def _npy(tmp, rows):
    np.save(tmp / "x.npy", rows[:4])
    return tmp / "x.npy"


@pytest.mark.parametrize("make, message", [
    (_npy, "not a sidecar file"),
    (_damaged, "not a sidecar file"),
    (lambda tmp, rows: (os.mkfifo(tmp / "fifo"), tmp / "fifo")[1], "not a regular file"),
    (lambda tmp, rows: tmp, "not a regular file"),
    (lambda tmp, rows: tmp / "no" / "dir" / "rows.vec", "directory .* does not exist"),
    (lambda tmp, rows: _sidecar_with(tmp / "big.vec", rows, 9), "holds 9 rows, more than .* 5"),
])
def test_sidecar_refusal_leaves_the_file_untouched(rows, tmp_path, make, message):
    path = make(tmp_path, rows)
    before = path.read_bytes() if path.is_file() else None
    with pytest.raises(orve.Error, match=message):
        orve.Index(capacity=5, sidecar=path)
    if before is not None:
        assert path.read_bytes() == before
    if "sidecar file" in message:  # an explicit overwrite starts an empty sidecar there
        with orve.Index(capacity=5, sidecar=path, overwrite=True) as ix:
            assert len(ix) == 0
        assert path.stat().st_size == 32


# Runs in a child: the file-size limit makes every write past it fail with EFBIG.
_FILE_SIZE_LIMITED = r"""
import json, resource, signal, sys
import numpy as np, orve
signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
side, paged = sys.argv[1], sys.argv[2]
rows = np.random.default_rng(3).standard_normal((1030, 512)).astype(np.float32)
out = {}
with orve.Index(capacity=2000, sidecar=side) as ix:
    ix.add(rows[:1000])
    resource.setrlimit(resource.RLIMIT_FSIZE, (32 + 2056 * 1007, resource.RLIM_INFINITY))
    for name, chunk in (("first", rows[1000:1020]), ("later", rows[1020:])):
        try:
            ix.add(chunk)
            out[name] = None
        except orve.Error as e:
            out[name] = str(e)
        out[name + "_rows"] = len(ix)
    ix.build_hivf(4, 4)
    resource.setrlimit(resource.RLIMIT_FSIZE, (100000, resource.RLIM_INFINITY))
    try:
        ix.write_paged(paged)
        out["paged"] = None
    except orve.Error as e:
        out["paged"] = str(e)
print(json.dumps(out))
"""


def test_rows_missing_from_the_sidecar_raise_with_counts(tmp_path):
    side, paged = tmp_path / "rows.vec", tmp_path / "p.ivfp"
    child = subprocess.run([sys.executable, "-c", _FILE_SIZE_LIMITED, str(side), str(paged)],
                           capture_output=True, text=True, timeout=600)
    assert child.returncode == 0, child.stderr
    out = json.loads(child.stdout.splitlines()[-1])
    assert "20 rows were added to the index but only 7 reached the sidecar" in out["first"]
    assert "holds 1020 rows in memory, the file 1007" in out["first"]
    assert "RLIMIT_FSIZE" in out["first"] and out["first_rows"] == 1020
    assert "nothing was added" in out["later"] and out["later_rows"] == 1020
    assert "RLIMIT_FSIZE" in out["paged"] and not paged.exists()
    rows = np.random.default_rng(3).standard_normal((1030, 512)).astype(np.float32)
    with orve.Index(capacity=2000, sidecar=side) as ix:  # the file kept a correct prefix
        assert len(ix) == 1007
        assert ix.search(rows[1006], 1, path="brute")[0][0] == 1007


def test_sidecar_in_use_is_refused_untouched(rows, tmp_path):
    side = tmp_path / "rows.vec"
    with orve.Index(capacity=10, sidecar=side) as first:
        first.add(rows[:3])
        with pytest.raises(orve.Error, match="in use by another index or process"):
            orve.Index(capacity=10, sidecar=side)
        first.add(rows[3:5])
    with orve.Index(capacity=10, sidecar=side) as again:  # released at close
        assert len(again) == 5


def test_dropped_flat_store(index, rows, queries):
    index.build_ivf(16)
    index.drop_flat()
    with pytest.raises(orve.Error) as e:
        index.search(queries[0], 3, path="brute")
    assert e.value.code == -7
    with pytest.raises(orve.Error):
        index.search_batch(queries[:2], 3, path="brute")
    ids, _ = index.search(queries[0], 3, path="ivf", nprobe=16)  # the IVF still answers
    assert len(ids) == 3
    with pytest.raises(orve.Error):
        index.add(rows[:1])


def test_capacity_bounds():
    for bad in (0, -5, 1_100_001, 2.0, "10"):
        with pytest.raises(ValueError):
            orve.Index(capacity=bad)


def test_module_function_errors():
    with pytest.raises(orve.Error) as e:
        orve.text_embedding("")
    assert e.value.code == -1
    with pytest.raises(ValueError):
        orve.text_embedding("a\0b")
    with pytest.raises(ValueError):
        orve.quantize(np.zeros(10))
    with pytest.raises(ValueError):
        orve.dot512(np.zeros(DIM, np.int16), np.zeros(DIM, np.int8))
    with pytest.raises(ValueError):
        orve.hrr_atom(-1, "entity", "x")
    with pytest.raises(ValueError):
        orve.hrr_encode(1, "a", "b\0", "c")
