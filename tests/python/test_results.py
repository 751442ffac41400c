"""Search results against independent computation (numpy) and against each other where the
library guarantees equality."""

import numpy as np
import pytest

import orve
from conftest import DIM, np_int8_cosines, np_quantize, np_topk


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


def test_brute_force_equals_numpy_model(index, rows, queries):
    ref_rows = np_quantize(rows)
    ids = np.arange(1, len(rows) + 1)
    for q in queries:
        got_ids, got_scores = index.search(q, 10, path="brute")
        want_ids, want_scores = np_topk(np_int8_cosines(q, ref_rows), ids, 10)
        np.testing.assert_array_equal(got_ids, want_ids)
        np.testing.assert_array_equal(got_scores, want_scores)
        assert got_ids.dtype == np.int64 and got_scores.dtype == np.float32


def test_min_similarity_filters_like_numpy(index, rows, queries):
    ref_rows = np_quantize(rows)
    ids = np.arange(1, len(rows) + 1)
    q = queries[0]
    cut = 0.1
    got_ids, got_scores = index.search(q, 50, path="brute", min_similarity=cut)
    want_ids, want_scores = np_topk(np_int8_cosines(q, ref_rows), ids, 50, cut)
    np.testing.assert_array_equal(got_ids, want_ids)
    np.testing.assert_array_equal(got_scores, want_scores)
    assert len(got_ids) < 50 and (got_scores >= np.float32(cut)).all()


def test_caller_ids_are_returned(rows, queries):
    ids = np.arange(len(rows), dtype=np.int64) * 7 + 1000
    with orve.Index(capacity=len(rows)) as ix:
        assert ix.add(rows, ids=ids) == len(rows)
        got_ids, got_scores = ix.search(queries[1], 5, path="brute")
    want_ids, want_scores = np_topk(np_int8_cosines(queries[1], np_quantize(rows)), ids, 5)
    np.testing.assert_array_equal(got_ids, want_ids)
    np.testing.assert_array_equal(got_scores, want_scores)


def test_float64_and_strided_input_equal_float32(rows, queries):
    with orve.Index(capacity=100) as a, orve.Index(capacity=100) as b:
        a.add(rows[:40])
        doubled = np.repeat(rows[:40].astype(np.float64), 2, axis=0)[::2]  # strided float64
        assert not doubled.flags.c_contiguous
        b.add(doubled)
        q64 = np.repeat(queries[2].astype(np.float64), 2)[::2]
        for ix in (a, b):
            ix_ids, ix_scores = ix.search(q64, 7, path="brute")
            ref_ids, ref_scores = a.search(queries[2], 7, path="brute")
            np.testing.assert_array_equal(ix_ids, ref_ids)
            np.testing.assert_array_equal(ix_scores, ref_scores)


@pytest.mark.parametrize("path", ["ivf", "hivf", "paged"])
def test_probing_everything_equals_brute(index, queries, tmp_path, path):
    index.build_ivf(24, seed=3) if path == "ivf" else index.build_hivf(6, 5, seed=2)
    brute = [index.search(q, 10, path="brute") for q in queries]
    if path == "paged":
        index.write_paged(tmp_path / "x.ivfp")
    for q, b in zip(queries, brute):
        got = index.search(q, 10, path=path, nprobe=24, nprobe_l1=6, nprobe_l2=5)
        np.testing.assert_array_equal(got[0], b[0])
        np.testing.assert_array_equal(got[1], b[1])


def test_batch_pads_short_answers(rows, queries):
    with orve.Index(capacity=10) as ix:
        ix.add(rows[:4])
        ids, scores = ix.search_batch(queries[:3], 6, path="brute")
        assert (ids[:, 4:] == -1).all() and np.isnan(scores[:, 4:]).all()
        assert sorted(ids[0, :4].tolist()) == [1, 2, 3, 4]
        single_ids, _ = ix.search(queries[0], 6, path="brute")
        assert len(single_ids) == 4
        ids, scores = ix.search_batch(queries[:3], 6, path="brute", min_similarity=2.0)
        assert (ids == -1).all() and np.isnan(scores).all()


def test_rerank_gives_exact_float_cosines(rows, queries, tmp_path):
    with orve.Index(capacity=len(rows), sidecar=tmp_path / "rows.vec") as ix:
        ix.add(rows[:200])
        x = rows[:200].astype(np.float64)
        for q in queries[:4]:
            exact = x @ q / (np.linalg.norm(x, axis=1) * np.linalg.norm(q))
            ids, scores = ix.search(q, 5, path="brute", rerank=True, rerank_factor=40)
            want = np.argsort(-exact, kind="stable")[:5]
            np.testing.assert_array_equal(ids, want + 1)
            np.testing.assert_allclose(scores, exact[want], rtol=0, atol=2e-6)


def test_text_embedding_and_hrr_encode(rng):
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
