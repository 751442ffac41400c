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


@pytest.fixture
def small(rows):
    with orve.Index(capacity=50) as ix:
        ix.add(rows[:20])
        yield ix


@pytest.mark.parametrize("call", [
    "ix.add(Z(DIM))", "ix.add(Z((3, 511)))", "ix.add(Z((2, 3, DIM)))", "ix.add(Z((0, DIM)))",
    "ix.add(Z((3, DIM), np.int32))", "ix.add(np.full((2, DIM), np.nan))", "ix.add([[1.0, 2.0]])",
    "ix.add(rows[:4], ids=[1, 2])", "ix.add(rows[:4], ids=[0, 1, 2, 3])",
    "ix.add(rows[:4], ids=[1, 2, 3, 2**32])", "ix.add(rows[:4], ids=np.array([1.0, 2, 3, 4]))",
    "ix.search(Z(511), 3)", "ix.search(Z((1, DIM)), 3)", "ix.search(np.full(DIM, np.inf), 3)",
    "ix.search(q[0], k=0)", "ix.search(q[0], k=2.5)", "ix.search(q[0], 3, path='lsh')",
    "ix.search(q[0], 3, rerank_factor=-1)", "ix.search(q[0], 3, nprobe=0)",
    "ix.search(q[0], 3, rerank=True)", "ix.search_batch(q, 5, rerank=True)",
    "ix.search_batch(q[:, :5], 3)", "ix.search_batch(q, 3, threads=0)", "ix.build_ivf(0)",
    "ix.open_paged('bad\\0path')", "orve.Index(capacity=0)", "orve.Index(capacity=1_100_001)",
    "orve.Index(capacity=2.0)", "orve.Index(capacity='10')", "orve.text_embedding('a\\0b')",
    "orve.quantize(Z(10))", "orve.dot512(Z(DIM, np.int16), Z(DIM, np.int8))",
    "orve.hrr_atom(-1, 'entity', 'x')", "orve.hrr_encode(1, 'a', 'b\\0', 'c')",
])
def test_bad_arguments_raise_value_error_and_change_nothing(small, rows, queries, call):
    names = {"np": np, "orve": orve, "DIM": DIM, "Z": lambda s, t=np.float32: np.zeros(s, t)}
    with pytest.raises(ValueError):
        eval(call, names, {"ix": small, "rows": rows, "q": queries})
    assert len(small) == 20


def test_refusals_name_the_call_and_carry_the_library_code(rows, queries, tmp_path):
    q = queries[0]
    with orve.Index(capacity=5) as ix:
        ix.add(rows[:5])
        for call, code, text in [
                (lambda: ix.add(rows[:1]), -1, "load_vectors_f32"),           # full
                (lambda: ix.get(1), None, "sidecar"),
                (lambda: orve.text_embedding(""), -1, "not be empty"),
                (lambda: ix.open_paged(tmp_path / "missing.ivfp"), None, "does not exist"),
                *[(lambda p=p: ix.search(q, 3, path=p), None, p) for p in ("ivf", "hivf", "paged")]]:
            with pytest.raises(orve.Error) as e:
                call()
            assert e.value.code == code and text in str(e.value)
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


def _built(ix, *_):
    ix.build_hivf(4, 4)


_WIDE = orve.PAGED_MAX_BRANCHING + 1


@pytest.mark.parametrize("setup, target, message", [
    (lambda ix, r, t: None, "x.ivfp", "no H-IVF built"),
    (lambda ix, r, t: (_built(ix), ix.add(r[:1])), "x.ivfp", "stale .*has to be built again"),
    (lambda ix, r, t: ix.build_hivf(_WIDE, 2), "x.ivfp", "b1 or b2 above 64 cannot be paged"),
    (lambda ix, r, t: ix.build_hivf(2, _WIDE), "x.ivfp", "b1 or b2 above 64 cannot be paged"),
    (lambda ix, r, t: (_built(ix), ix.write_paged(t / "first.ivfp")), "x.ivfp",
     "moved to .*first.ivfp.*has to be built again"),
    (_built, "no/dir/x.ivfp", "directory .* does not exist"),
    (_built, "adir", "not a regular file"),
    (_built, "rows.vec", "is this index's sidecar"),
])
def test_write_paged_refusal_keeps_the_target(rows, tmp_path, setup, target, message):
    (tmp_path / "adir").mkdir()
    (tmp_path / "x.ivfp").write_bytes(b"the index served until now")
    with orve.Index(capacity=2000, sidecar=tmp_path / "rows.vec") as ix:
        ix.add(rows)
        setup(ix, rows, tmp_path)
        with pytest.raises(orve.Error, match=message) as e:
            ix.write_paged(tmp_path / target)
        assert e.value.code is None
        kept = len(ix)
    assert (tmp_path / "x.ivfp").read_bytes() == b"the index served until now"
    assert (tmp_path / "adir").is_dir()
    with orve.Index(capacity=2000, sidecar=tmp_path / "rows.vec") as ix:
        assert len(ix) == kept


def _sidecar_with(path, rows, n, flip=False):
    with orve.Index(capacity=n, sidecar=path) as ix:
        ix.add(rows[:n])
    if flip:  # the dimension field
        path.write_bytes(path.read_bytes()[:12] + b"\x01" + path.read_bytes()[13:])
    return path


@pytest.mark.parametrize("make, message", [
    (lambda tmp, rows: (np.save(tmp / "x.npy", rows[:4]), tmp / "x.npy")[1], "not a sidecar file"),
    (lambda tmp, rows: _sidecar_with(tmp / "rows.vec", rows, 3, True), "not a sidecar file"),
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
    for name, call in (("first", lambda: ix.add(rows[1000:1020])),
                       ("later", lambda: ix.add(rows[1020:])), ("paged", lambda: ix.write_paged(paged))):
        if name == "paged":
            ix.build_hivf(4, 4)
            resource.setrlimit(resource.RLIMIT_FSIZE, (100000, resource.RLIM_INFINITY))
        try:
            out[name] = call()
        except orve.Error as e:
            out[name] = str(e)
        out[name + "_rows"] = len(ix)
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
