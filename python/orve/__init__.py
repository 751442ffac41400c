"""orve: Python bindings of libsemantic_vector_indexing, an int8 nearest-neighbour index for
512-dimension embeddings.

    with orve.Index(capacity=100_000, sidecar="rows.vec") as index:
        index.add(vectors)                      # float32 (n, 512); ids 1..n
        index.build_ivf(nlist=256)
        ids, scores = index.search(query, 10, path="ivf", nprobe=16)
"""

from __future__ import annotations

import os

import numpy as np

from ._errors import Error
from . import _core

__all__ = ["Index", "Error", "DIM", "quantize", "dot512", "text_embedding", "hrr_atom",
           "hrr_encode"]

DIM = int(_core.vec_dim())
_MAX_ROWS = 1_100_000
_PATHS = ("auto", "brute", "ivf", "hivf", "paged")
_U32_MAX = 2**32 - 1


def _float_rows(x, what):
    """(n, 512) float32, C-contiguous: converted at most once, never row by row."""
    a = np.asarray(x)
    if a.dtype.kind != "f":
        raise ValueError(f"{what}: expected a float32 or float64 array of shape (n, {DIM}), "
                         f"got dtype {a.dtype}")
    if a.ndim != 2 or a.shape[1] != DIM:
        raise ValueError(f"{what}: expected shape (n, {DIM}), got {a.shape}")
    if a.shape[0] == 0:
        raise ValueError(f"{what}: expected at least one row of {DIM} values, got none")
    a = np.ascontiguousarray(a, dtype=np.float32)
    if not np.isfinite(a).all():
        raise ValueError(f"{what}: expected finite values (found NaN or infinity)")
    return a


def _float_vector(x, n, what):
    a = np.asarray(x)
    if a.dtype.kind != "f":
        raise ValueError(f"{what}: expected a float32 or float64 vector of {n} values, "
                         f"got dtype {a.dtype}")
    if a.shape != (n,):
        raise ValueError(f"{what}: expected shape ({n},), got {a.shape}")
    a = np.ascontiguousarray(a, dtype=np.float32)
    if not np.isfinite(a).all():
        raise ValueError(f"{what}: expected finite values (found NaN or infinity)")
    return a


def _u32(value, what, low=0, high=_U32_MAX):
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise ValueError(f"{what}: expected an integer, got {value!r}")
    value = int(value)
    if not low <= value <= high:
        raise ValueError(f"{what}: expected {low} to {high}, got {value}")
    return value


def _default_nprobe(nlist):
    return max(1, nlist // 16)


def _default_nprobe_level(branching):
    return max(1, branching // 4)


class Index:
    """An int8 index of 512-dimension vectors held by the library's central object.

    ``capacity`` (rows, 1 to 1,100,000) is fixed at creation; None keeps the library's rule
    (the ORVE_VECTOR_CAPACITY environment variable, else 1,100,000). With ``sidecar`` the
    exact float rows are kept in that file: rows already in it are loaded first, and every
    later row is appended, so an index made again from the same file holds the same rows.
    """

    def __init__(self, capacity=None, sidecar=None):
        if capacity is not None:
            capacity = _u32(capacity, "capacity", 1, _MAX_ROWS)
        if sidecar is not None:
            sidecar = os.fsdecode(os.fspath(sidecar))
        self._sys = _core.System(capacity, sidecar)
        self._nlist = None          # of the last IVF built here
        self._hivf = None           # (b1, b2, ingestion generation at the build)
        self._paged = None          # (b1, b2) of the attached paged file

    # -- lifetime -------------------------------------------------------------------------
    def close(self):
        """Releases the object and everything attached to it. Idempotent."""
        self._sys.close()

    @property
    def closed(self):
        return self._sys.closed

    def __enter__(self):
        self._check_open()
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __len__(self):
        return self._sys.node_count()

    def __repr__(self):
        if self.closed:
            return "<orve.Index closed>"
        return f"<orve.Index rows={len(self)}>"

    @property
    def dim(self):
        return DIM

    @property
    def stats(self):
        """Row count, legacy-clustering figures and the ingestion / IVF generations."""
        nodes, clusters, avg, silhouette, gen, built = self._sys.stats()
        return {"rows": nodes, "clusters": clusters, "avg_similarity": avg,
                "silhouette": silhouette, "ingest_generation": gen,
                "ivf_built_generation": built, "nlist": self._nlist,
                "hivf": None if self._hivf is None else self._hivf[:2],
                "paged": self._paged}

    def _check_open(self):
        if self._sys.closed:
            raise Error("the index is closed")

    # -- ingestion ------------------------------------------------------------------------
    def add(self, vectors, ids=None):
        """Adds float rows of shape (n, 512). Without ids the rows are numbered by position
        (1-based over the whole index); with ids (n nonzero uint32 values) each row keeps its
        own. Returns the number of rows added."""
        rows = _float_rows(vectors, "vectors")
        if ids is None:
            return self._sys.load(rows)
        ids_a = np.asarray(ids)
        if ids_a.dtype.kind not in "iu" or ids_a.shape != (rows.shape[0],):
            raise ValueError(f"ids: expected {rows.shape[0]} integers (one per row), got "
                             f"dtype {ids_a.dtype} shape {ids_a.shape}")
        if ids_a.size and (ids_a.min() < 1 or ids_a.max() > _U32_MAX):
            raise ValueError("ids: expected values from 1 to 2**32 - 1")
        return self._sys.add_with_ids(rows, np.ascontiguousarray(ids_a, dtype=np.uint32))

    # -- index builds and files ------------------------------------------------------------
    def build_ivf(self, nlist, seed=1):
        """Trains and publishes an IVF of ``nlist`` buckets (needs 1000 rows or more)."""
        nlist = _u32(nlist, "nlist", 1)
        self._sys.build_ivf(nlist, _u32(seed, "seed"))
        self._nlist = nlist

    def build_hivf(self, b1, b2, seed=1):
        """Trains and publishes a two-level H-IVF with b1 x b2 leaves."""
        b1 = _u32(b1, "b1", 1)
        b2 = _u32(b2, "b2", 1)
        self._sys.build_hivf(b1, b2, _u32(seed, "seed"))
        self._hivf = (b1, b2, self._sys.stats()[4])

    def write_paged(self, path):
        """Writes the current H-IVF to a paged .ivfp file and searches it from there on."""
        path = os.fsdecode(os.fspath(path))
        self._sys.write_paged(path)
        b1, b2 = self._hivf[:2] if self._hivf else _core.paged_branching(path)
        self._paged = (b1, b2)

    def open_paged(self, path):
        """Attaches an existing .ivfp file (written by write_paged, here or earlier)."""
        path = os.fsdecode(os.fspath(path))
        self._check_open()
        b1, b2 = _core.paged_branching(path)
        self._sys.open_paged(path)
        self._paged = (b1, b2)

    def drop_flat(self):
        """Frees the flat int8 rows for good: no more ingestion, builds or brute force."""
        self._sys.drop_flat()

    # -- search ---------------------------------------------------------------------------
    def _options(self, k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                 min_similarity, what):
        if path not in _PATHS:
            raise ValueError(f"path: expected one of {', '.join(_PATHS)}, got {path!r}")
        o = _core.SearchOptions()
        o.k = _u32(k, "k", 1, _MAX_ROWS)
        o.rerank = bool(rerank)
        o.rerank_factor = _u32(rerank_factor, "rerank_factor", 0, 64)
        o.min_similarity = float(min_similarity)
        # Probe counts are checked even when the index they are for is absent, so a bad value
        # does not wait for the index to appear before it is reported.
        for value, name in ((nprobe, "nprobe"), (nprobe_l1, "nprobe_l1"),
                            (nprobe_l2, "nprobe_l2")):
            if value is not None:
                _u32(value, name, 1)
        self._check_open()
        gen, built = self._sys.stats()[4:6]
        ivf_ok = self._nlist is not None and gen == built
        hivf_ok = self._hivf is not None and self._hivf[2] == gen
        if path == "ivf" and not ivf_ok:
            raise Error(f"{what}(path='ivf'): no current IVF (call build_ivf after the last add)")
        if path == "hivf" and not (hivf_ok or self._paged):
            raise Error(f"{what}(path='hivf'): no current H-IVF (call build_hivf after the "
                        f"last add)")
        if path == "paged" and not self._paged:
            raise Error(f"{what}(path='paged'): no paged file attached (write_paged or "
                        f"open_paged)")
        if path in ("ivf", "auto") and ivf_ok:
            o.use_ivf = True
            o.nprobe = _u32(nprobe if nprobe is not None else _default_nprobe(self._nlist),
                            "nprobe", 1)
        if path in ("hivf", "paged", "auto") and (hivf_ok or self._paged):
            b1, b2 = self._paged if self._paged else self._hivf[:2]
            o.use_hivf = True
            o.nprobe_l1 = _u32(nprobe_l1 if nprobe_l1 is not None
                               else _default_nprobe_level(b1), "nprobe_l1", 1)
            o.nprobe_l2 = _u32(nprobe_l2 if nprobe_l2 is not None
                               else _default_nprobe_level(b2), "nprobe_l2", 1)
        return o

    def search(self, query, k=10, *, path="auto", nprobe=None, nprobe_l1=None, nprobe_l2=None,
               rerank=False, rerank_factor=0, min_similarity=-1.0):
        """The k rows most similar to ``query`` (512 floats): ``(ids, scores)``, best first,
        int64 ids and float32 cosines; fewer than k when fewer rows qualify.

        path: "brute" scans every row; "ivf", "hivf" and "paged" use that index and raise
        Error when it is missing or stale; "auto" lets the library take the paged file or
        H-IVF, then the IVF, then brute force. rerank re-scores exactly from the sidecar."""
        q = _float_vector(query, DIM, "query")
        o = self._options(k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                          min_similarity, "search")
        return self._sys.search(q, o)

    def search_batch(self, queries, k=10, *, path="auto", nprobe=None, nprobe_l1=None,
                     nprobe_l2=None, rerank=False, rerank_factor=0, min_similarity=-1.0):
        """search() for each row of ``queries`` (nq, 512): ``(ids[nq, k], scores[nq, k])``,
        padded with -1 and NaN where a query has fewer than k results."""
        q = _float_rows(queries, "queries")
        o = self._options(k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                          min_similarity, "search_batch")
        if path == "ivf":
            return self._sys.search_batch_ivf(q, o)
        return self._sys.search_batch_loop(q, o)


# -- module functions --------------------------------------------------------------------
def quantize(vec):
    """Symmetric int8 quantisation of 512 floats: ``(codes int8[512], scale, norm)``."""
    return _core.quantize(_float_vector(vec, DIM, "vec"))


def _codes(x, what):
    a = np.asarray(x)
    if a.dtype != np.int8 or a.shape != (DIM,):
        raise ValueError(f"{what}: expected int8 codes of shape ({DIM},), got dtype {a.dtype} "
                         f"shape {a.shape}")
    return np.ascontiguousarray(a)


def dot512(a, b):
    """Exact integer dot product of two int8[512] code vectors."""
    return int(_core.dot512(_codes(a, "a"), _codes(b, "b")))


def text_embedding(text):
    """Deterministic unit-length float32[128] hashed embedding of a non-empty text."""
    if not isinstance(text, str):
        raise ValueError(f"text: expected str, got {type(text).__name__}")
    return _core.text_embedding(text)


def _seed(seed):
    return _u32(seed, "seed", 0, 2**64 - 1)


def hrr_atom(seed, role, name):
    """Unit-length float32[512] HRR atom of symbol ``name`` in ``role`` for family ``seed``."""
    return _core.hrr_atom(_seed(seed), str(role), str(name))


def hrr_encode(seed, subject, relation, obj):
    """Unit-length float32[512] HRR vector of the fact (subject, relation, object)."""
    return _core.hrr_encode(_seed(seed), str(subject), str(relation), str(obj))

from .sharded import ShardedIndex  # noqa: E402  (needs Index defined above)
