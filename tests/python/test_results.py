"""What the bindings hand over and return: values, ids, dtypes, conversions of the input and
padding of short answers. The scoring itself is checked in C++."""

import numpy as np
import pytest

import orve
from conftest import DIM, assert_same


def test_quantize_and_dot512_hand_over_the_library_values(rng):
    # The scoring itself is checked against an independent model in C++; here the bindings must
    # hand over and return the very values. Scale 1 (largest magnitude 127): codes are the
    # inputs rounded half to even; the norm is the float square root of 16144.
    x = np.zeros(DIM, np.float32)
    x[:5] = [127.0, 0.5, 1.5, 2.5, -2.5]
    codes, scale, norm = orve.quantize(x)
    assert codes[:5].tolist() == [127, 0, 2, 2, -2] and not codes[5:].any()
    assert (np.float32(scale), np.float32(norm)) == (1.0, np.float32(np.sqrt(16144.0)))
    assert not orve.quantize(np.zeros(DIM))[0].any()
    a = rng.integers(-127, 128, DIM).astype(np.int8)
    assert orve.dot512(a, codes) == int(a.astype(np.int64) @ codes.astype(np.int64))


@pytest.mark.parametrize("step", [None, 7])
def test_answers_carry_the_hosts_ids(rows, step):
    ids = np.arange(1, len(rows) + 1) if step is None else np.arange(len(rows)) * step + 1000
    with orve.Index(capacity=len(rows)) as ix:
        assert ix.add(rows, ids=None if step is None else ids) == len(rows)
        got = ix.search_batch(rows[:12], 3, path="brute")  # each row is its own best match
        assert got[0].dtype == np.int64 and got[1].dtype == np.float32
        np.testing.assert_array_equal(got[0][:, 0], ids[:12])


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


def test_text_embedding_and_hrr_bindings():
    # The values are pinned by golden digests in C++; here the arrays must come back whole.
    a = orve.text_embedding("knowledge graph node")
    assert a.shape == (128,) and abs(np.linalg.norm(a.astype(np.float64)) - 1) < 1e-5
    fact = orve.hrr_encode(7, "paris", "capital_of", "france")
    assert fact.shape == (512,) and abs(np.linalg.norm(fact.astype(np.float64)) - 1) < 1e-5
    assert not np.array_equal(orve.hrr_atom(8, "entity", "x"), orve.hrr_atom(7, "entity", "x"))
