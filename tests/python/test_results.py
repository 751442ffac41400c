"""Search results against independent computation (numpy) and against each other where the
library guarantees equality."""

import numpy as np
import pytest

import orve
from conftest import DIM, assert_same, exact_topk, np_int8_cosines, np_quantize, np_topk


def test_quantize_and_dot512_match_numpy(rng):
    # The kernels themselves are tested against their reference in C++; here the bindings must
    # hand over and return the very values (ties round to even, zero vectors stay zero).
    x = rng.standard_normal(DIM).astype(np.float32) * 3
    x[:5] = [127.0, 0.5, 1.5, 2.5, -2.5]
    codes, scale, norm = orve.quantize(x)
    rc, rs, rn = np_quantize(x)
    np.testing.assert_array_equal(codes, rc[0])
    assert (np.float32(scale), np.float32(norm)) == (rs[0], rn[0])
    assert not orve.quantize(np.zeros(DIM))[0].any()
    a = rng.integers(-127, 128, DIM).astype(np.int8)
    assert orve.dot512(a, codes) == int(a.astype(np.int64) @ codes.astype(np.int64))


@pytest.mark.parametrize("step, k, cut", [(None, 10, -np.inf), (7, 5, -np.inf), (None, 50, 0.1)])
def test_brute_force_equals_numpy_model(rows, queries, step, k, cut):
    ids = np.arange(1, len(rows) + 1) if step is None else np.arange(len(rows)) * step + 1000
    ref_rows = np_quantize(rows)
    with orve.Index(capacity=len(rows)) as ix:
        assert ix.add(rows, ids=None if step is None else ids) == len(rows)
        for q in queries:
            got = ix.search(q, k, path="brute", min_similarity=cut)
            assert got[0].dtype == np.int64 and got[1].dtype == np.float32
            assert_same(got, np_topk(np_int8_cosines(q, ref_rows), ids, k, cut))
            assert cut == -np.inf or len(got[0]) < k   # the cut removed some


def test_float64_and_strided_input_equal_float32(rows, queries):
    with orve.Index(capacity=100) as a, orve.Index(capacity=100) as b:
        a.add(rows[:40])
        doubled = np.repeat(rows[:40].astype(np.float64), 2, axis=0)[::2]  # strided float64
        assert not doubled.flags.c_contiguous
        b.add(doubled)
        q64 = np.repeat(queries[2].astype(np.float64), 2)[::2]
        for ix in (a, b):
            assert_same(ix.search(q64, 7, path="brute"), a.search(queries[2], 7, path="brute"))


def test_batch_pads_short_answers(rows, queries):
    with orve.Index(capacity=10) as ix:
        ix.add(rows[:4])
        ids, scores = ix.search_batch(queries[:3], 6, path="brute")
        assert (ids[:, 4:] == -1).all() and np.isnan(scores[:, 4:]).all()
        assert sorted(ids[0, :4].tolist()) == [1, 2, 3, 4]
        assert len(ix.search(queries[0], 6, path="brute")[0]) == 4
        ids, scores = ix.search_batch(queries[:3], 6, path="brute", min_similarity=2.0)
        assert (ids == -1).all() and np.isnan(scores).all()


def test_rerank_gives_exact_float_cosines(rows, queries, tmp_path):
    with orve.Index(capacity=len(rows), sidecar=tmp_path / "rows.vec") as ix:
        ix.add(rows[:200])
        x = rows[:200].astype(np.float64)
        for q in queries[:4]:
            ids, scores = ix.search(q, 5, path="brute", rerank=True, rerank_factor=40)
            np.testing.assert_array_equal(ids, exact_topk(x, q, 5)[0])
            exact = x[ids - 1] @ q / (np.linalg.norm(x[ids - 1], axis=1) * np.linalg.norm(q))
            np.testing.assert_allclose(scores, exact, rtol=0, atol=2e-6)


def test_text_embedding_and_hrr_encode():
    a = orve.text_embedding("knowledge graph node")
    assert a.shape == (128,) and abs(np.linalg.norm(a.astype(np.float64)) - 1) < 1e-5
    assert not np.array_equal(a, orve.text_embedding("another node"))
    # A fact is its subject atom plus the relation and object atoms rolled by 1 and 2.
    s, r, o = (orve.hrr_atom(7, role, name) for role, name in
               (("entity", "paris"), ("relation", "capital_of"), ("entity", "france")))
    want = s.astype(np.float64) + np.roll(r, 1) + np.roll(o, 2)
    got = orve.hrr_encode(7, "paris", "capital_of", "france")
    np.testing.assert_allclose(got, want / np.linalg.norm(want), atol=1e-6)
    assert not np.array_equal(orve.hrr_atom(8, "entity", "paris"), s)
