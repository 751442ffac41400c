"""Bad input, closed objects and unreadable files raise clean exceptions, never crash, and
leave the index and the files on disk as they were."""

import json
import os
import subprocess
import sys

import numpy as np
import pytest

import orve
from conftest import DIM

_Z = np.zeros


@pytest.fixture
def small(rows):
    with orve.Index(capacity=50) as ix:
        ix.add(rows[:20])
        yield ix


@pytest.mark.parametrize("call", [
    *[lambda ix, rows, q, bad=bad: ix.add(bad) for bad in (
        _Z(DIM, np.float32), _Z((3, 511), np.float32), _Z((2, 3, DIM), np.float32),
        _Z((3, DIM), np.int32), _Z((0, DIM), np.float32), np.full((2, DIM), np.nan, np.float32),
        [[1.0, 2.0]])],
    *[lambda ix, rows, q, ids=ids: ix.add(rows[:4], ids=ids) for ids in (
        np.arange(1, 3), np.arange(0, 4), np.array([1, 2, 3, 2**32]), np.array([1.0, 2, 3, 4]))],
    *[lambda ix, rows, q, bad=bad: ix.search(bad, 3) for bad in (
        _Z(511, np.float32), _Z((1, DIM), np.float32), np.full(DIM, np.inf))],
    *[lambda ix, rows, q, kw=kw: ix.search(q[0], **kw) for kw in (
        {"k": 0}, {"k": 2.5}, {"k": 3, "path": "lsh"}, {"k": 3, "rerank_factor": -1},
        {"k": 3, "nprobe": 0, "path": "auto"}, {"k": 3, "rerank": True})],
    lambda ix, rows, q: ix.search_batch(q[:, :5], 3),
    lambda ix, rows, q: ix.search_batch(q, 3, threads=0),
    lambda ix, rows, q: ix.search_batch(q, 5, rerank=True),
    lambda ix, rows, q: ix.build_ivf(0),
    lambda ix, rows, q: ix.open_paged("bad\0path"),
    *[lambda ix, rows, q, bad=bad: orve.Index(capacity=bad) for bad in (0, 1_100_001, 2.0, "10")],
    lambda ix, rows, q: orve.text_embedding("a\0b"),
    lambda ix, rows, q: orve.quantize(np.zeros(10)),
    lambda ix, rows, q: orve.dot512(np.zeros(DIM, np.int16), np.zeros(DIM, np.int8)),
    lambda ix, rows, q: orve.hrr_atom(-1, "entity", "x"),
    lambda ix, rows, q: orve.hrr_encode(1, "a", "b\0", "c"),
])
def test_bad_arguments_raise_value_error_and_change_nothing(small, rows, queries, call):
    with pytest.raises(ValueError):
        call(small, rows, queries)
    assert len(small) == 20


def test_refusals_name_the_call_and_carry_the_library_code(rows, queries, tmp_path):
    q = queries[0]
    with orve.Index(capacity=5) as ix:
        ix.add(rows[:5])
        for call, code, text in [
                (lambda: ix.add(rows[:1]), -1, "load_vectors_f32"),           # full
                (lambda: ix.add(rows[:1], ids=[99]), -1, "add_embedding_orve512"),
                (lambda: ix.build_ivf(4), -1, "build_ivf"),                   # too few rows
                (lambda: ix.build_hivf(2, 2), -1, "build_ivf_level2"),
                (lambda: ix.get(1), None, "sidecar"),
                (lambda: orve.text_embedding(""), -1, "not be empty"),
                (lambda: ix.open_paged(tmp_path / "missing.ivfp"), None, "does not exist"),
                *[(lambda p=p: ix.search(q, 3, path=p), None, p) for p in ("ivf", "hivf", "paged")]]:
            with pytest.raises(orve.Error) as e:
                call()
            assert e.value.code == code and text in str(e.value)
        for junk in (os.urandom(5000), b""):
            (tmp_path / "junk.ivfp").write_bytes(junk)
            with pytest.raises(orve.Error):
                ix.open_paged(tmp_path / "junk.ivfp")
        assert len(ix) == 5 and len(ix.search(q, 9)[0]) == 5


def test_closed_index_raises_everywhere(rows, queries, tmp_path):
    ix = orve.Index(capacity=10)
    ix.add(rows[:3])
    ix.close()
    ix.close()  # idempotent
    assert ix.closed
    for call in [lambda: ix.add(rows[:1]), lambda: ix.search(queries[0], 1),
                 lambda: ix.search_batch(queries[:2], 1), lambda: len(ix), lambda: ix.stats,
                 lambda: ix.build_ivf(2), lambda: ix.build_hivf(1, 1), lambda: ix.drop_flat(),
                 lambda: ix.write_paged(tmp_path / "a"), lambda: ix.open_paged(tmp_path / "b"),
                 lambda: ix.__enter__()]:
        with pytest.raises(orve.Error, match="closed"):
            call()
    with orve.Index(capacity=3) as ctx:
        pass
    assert ctx.closed


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
    ("built", "rows.vec", "is this index's sidecar"),
])
def test_write_paged_refusal_names_the_cause_and_keeps_the_target(rows, tmp_path, setup, target,
                                                                 message):
    (tmp_path / "adir").mkdir()
    (tmp_path / "x.ivfp").write_bytes(b"the index served until now")
    with orve.Index(capacity=2000, sidecar=tmp_path / "rows.vec") as ix:
        ix.add(rows)
        _WRITE_PAGED_SETUP[setup](ix, rows, tmp_path)
        with pytest.raises(orve.Error, match=message) as e:
            ix.write_paged(tmp_path / target)
        assert e.value.code is None
    assert (tmp_path / "x.ivfp").read_bytes() == b"the index served until now"
    assert (tmp_path / "adir").is_dir()
    with orve.Index(capacity=2000, sidecar=tmp_path / "rows.vec") as ix:
        assert len(ix) == len(rows) + (setup == "stale")


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


@pytest.mark.parametrize("make, message", [
    (lambda tmp, rows: (np.save(tmp / "x.npy", rows[:4]), tmp / "x.npy")[1], "not a sidecar file"),
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
