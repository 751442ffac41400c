"""orve: Python bindings of libsemantic_vector_indexing, an int8 nearest-neighbour index for
512-dimension embeddings.

    with orve.Index(capacity=100_000, sidecar="rows.vec") as index:
        index.add(vectors)                      # float32 (n, 512); ids 1..n
        index.build_ivf(nlist=256)
        ids, scores = index.search(query, 10, path="ivf", nprobe=16)
"""

from __future__ import annotations

import os
import threading
from concurrent.futures import ThreadPoolExecutor

import numpy as np

from ._errors import Error
from . import _core, _files

__version__ = _core.VERSION  # the library's version: package and library ship together

__all__ = ["Index", "Error", "DIM", "PAGED_MAX_BRANCHING", "quantize", "dot512",
           "text_embedding", "hrr_atom", "hrr_encode"]

DIM = int(_core.vec_dim())
PAGED_MAX_BRANCHING = int(_core.PAGED_MAX_BRANCHING)   # largest b1, b2 write_paged accepts
_MAX_ROWS = int(_core.MAX_CAPACITY)          # most rows one object holds
_MIN_INDEX_ROWS = int(_core.MIN_INDEX_ROWS)   # fewest rows an IVF or H-IVF trains on
# Bytes the library allocates per row and per centroid in the layouts it documents: 512 int8
# codes, a float scale and a float norm; a flat-store row adds its validity byte, an index row
# the u32 that maps it back to its row.
_CODE_ROW = 512 + 4 + 4
_FLAT_ROW = _CODE_ROW + 1
_INDEX_ROW = _CODE_ROW + 4
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
    """Buckets probed by an IVF search without nprobe or tuning: a sixteenth of them (recall@10
    0.99 on a 100k-row clustered set at nlist 1265), as the orve tool does."""
    return max(1, nlist // 16)


def _default_nprobe_level(branching):
    """Buckets probed per H-IVF level without nprobe_l1/l2 or tuning: half, rounded up. The two
    levels' misses compound: a quarter per level gave recall@10 0.82 on a 100k-row clustered
    set (36 x 36), half gave 0.91."""
    return (branching + 1) // 2


def _probe_ladder(n):
    """1, 2, 4, ... up to n, with n itself last: the settings tune() tries per level."""
    out, p = [], 1
    while p < n:
        out.append(p)
        p *= 2
    out.append(n)
    return out


def _recall(found, truth):
    """Mean share of each query's true top-k ids found (padding ids -1 never match)."""
    hits = sum(len(set(f[f >= 0].tolist()) & set(t[t >= 0].tolist()))
               for f, t in zip(found, truth))
    total = int((truth >= 0).sum())
    return hits / total if total else 1.0


class Index:
    """An int8 index of 512-dimension vectors held by the library's central object.

    ``capacity`` (rows, 1 to 1,100,000) is fixed at creation; None keeps the library's rule
    (the ORVE_VECTOR_CAPACITY environment variable, else 1,100,000). With ``sidecar`` the
    exact float rows are kept in that file: rows already in it are loaded first, and every
    later row is appended, so an index made again from the same file holds the same rows.
    An existing non-empty file that is not a sidecar is refused (it would be emptied) unless
    ``overwrite`` is true; a path that is not a regular file, or a sidecar attached by
    another index or process, is always refused.
    """

    def __init__(self, capacity=None, sidecar=None, *, overwrite=False):
        if capacity is not None:
            capacity = _u32(capacity, "capacity", 1, _MAX_ROWS)
        self._side_path = None
        self._side_fd = None        # our own read-only descriptor: file row counts, ids
        self._side_lost = None      # (rows in memory, rows in the file) once an append failed
        self._ingest = threading.Lock()   # one ingestion at a time: row positions are known
        self._ids = np.empty(0, np.uint32)   # node id of each row, by row position
        self._nids = 0
        self._nlist = None          # of the last IVF built here
        self._hivf = None           # (b1, b2, ingestion generation at the build)
        self._hivf_moved = None     # path the H-IVF's rows went to (write_paged frees them)
        self._paged = None          # (b1, b2) of the attached paged file
        self._paged_gen = None      # ingestion generation it is current at; None: stale
        self._paged_rows = 0
        self._paged_bytes = 0       # size of the attached paged file: what is mapped
        self._ivf_rows = 0          # rows the IVF / H-IVF were trained on
        self._hivf_rows = 0
        self._flat_dropped = False
        self._capacity = _files.effective_capacity(capacity)
        self._tuned = {}            # path -> probe setting chosen by tune(); cleared at builds
        if sidecar is not None:
            sidecar = os.fsdecode(os.fspath(sidecar))
            _files.check_sidecar(sidecar, overwrite, _files.effective_capacity(capacity))
        self._sys = _core.System(capacity, None)
        if sidecar is not None:
            self._attach_sidecar(sidecar)

    def _attach_sidecar(self, path):
        try:
            self._sys.open_sidecar(path)
        except Error as e:
            try:
                cause = self._sidecar_cause(path)
            except OSError as probe:
                cause = f"'{path}': {probe.strerror}"
            finally:
                self._sys.close()
            raise Error(f"{e}: {cause}", e.code) from None
        try:
            self._side_fd = os.open(path, os.O_RDONLY)
            ids = _files.sidecar_ids(self._side_fd, os.fstat(self._side_fd).st_size)
        except OSError as e:
            self.close()
            raise Error(f"sidecar '{path}' attached but cannot be read back: {e.strerror}") \
                from None
        self._side_path = path
        # The replay ingests exactly the live rows, in file order; any other count means the
        # rows' ids are not known here, and open_paged then cannot check a file against them.
        if len(ids) == len(self):
            self._record_ids(ids)
        else:
            self._nids = -1

    def _sidecar_cause(self, path):
        """Why the library could not attach the sidecar, from what can be observed now."""
        cause = _files.lock_holder_cause(path)
        if cause:
            return cause
        if os.path.exists(path):
            try:
                os.close(os.open(path, os.O_RDWR))
            except OSError as e:
                return f"it cannot be opened for reading and writing: {e.strerror}"
            with open(path, "rb") as f:
                size = os.fstat(f.fileno()).st_size
                live = len(_files.sidecar_ids(f.fileno(), size))
            done = len(self)
            if done < live:
                return (f"the replay stopped after {done} of its {live} rows: the library "
                        f"refused row {done + 1}")
        cause = _files.write_cause(os.path.dirname(path) or ".", _files.SIDECAR_HEADER_BYTES)
        return cause or "no cause found by the package"

    # -- lifetime -------------------------------------------------------------------------
    def close(self):
        """Releases the object and everything attached to it. Idempotent."""
        # After any add in progress: it reads the sidecar's size through the descriptor.
        with self._ingest:
            self._sys.close()
            fd, self._side_fd = self._side_fd, None
        if fd is not None:
            os.close(fd)

    def __del__(self):
        fd = getattr(self, "_side_fd", None)
        if fd is not None:
            os.close(fd)

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
        gen, built = self._sys.stats()[4:6]
        parts = [f"rows={len(self)}", f"capacity={self._capacity}"]
        if self._nlist is not None:
            parts.append(f"ivf(nlist={self._nlist}, {'current' if gen == built else 'stale'})")
        if self._hivf is not None and self._hivf_moved is None:
            b1, b2, at = self._hivf
            parts.append(f"hivf({b1}x{b2}, {'current' if at == gen else 'stale'})")
        if self._paged is not None:
            b1, b2 = self._paged
            parts.append(f"paged({b1}x{b2}, {'current' if self._paged_gen == gen else 'stale'})")
        if self._side_path is not None:
            parts.append(f"sidecar={self._side_path!r}")
        return f"<orve.Index {' '.join(parts)}>"

    def __contains__(self, node_id):
        """True when a row with this node id is held (ids known to the package only)."""
        if isinstance(node_id, (bool, np.bool_)) or not isinstance(node_id, (int, np.integer)):
            return False
        if self._nids < 0:
            raise Error("the ids of this index's rows are not known to the package")
        return bool((self._ids[:self._nids] == int(node_id)).any())

    def get(self, node_id, default=None):
        """The stored float32[512] row of ``node_id`` read back from the sidecar (the last one
        written under that id), or ``default`` when no live row has it. Raises Error without
        a sidecar: the index itself keeps only int8 codes, which are not the stored vector."""
        node_id = _u32(node_id, "node_id", 1)
        with self._ingest:
            self._check_open()
            if self._side_fd is None:
                raise Error("get: this index has no sidecar, so the float rows are not kept")
            row = _files.sidecar_vector(self._side_fd, os.fstat(self._side_fd).st_size,
                                        node_id)
        return default if row is None else row

    @property
    def dim(self):
        return DIM

    @property
    def stats(self):
        """Row count, legacy-clustering figures, the ingestion / IVF generations, and
        "memory": bytes per part ("flat_store", "ivf", "hivf", "paged_mapping").

        The library reports no allocation sizes, so "memory" is computed from what is known
        here: the flat store is sized for the whole capacity once the first row arrives (512
        codes, scale, norm and a validity byte a row) and is 0 after drop_flat; an IVF or
        H-IVF holds its rows at training (codes, scale, norm, row id) plus its centroids
        (codes, scale, norm), and an H-IVF keeps only its centroids once write_paged moved
        its rows to the file; "paged_mapping" is the size of the attached paged file, which
        is mapped whole (how much of it is resident depends on the searches)."""
        nodes, clusters, avg, silhouette, gen, built = self._sys.stats()
        return {"rows": nodes, "capacity": self._capacity, "clusters": clusters, "avg_similarity": avg,
                "silhouette": silhouette, "ingest_generation": gen,
                "ivf_built_generation": built, "nlist": self._nlist,
                "hivf": None if self._hivf is None else self._hivf[:2],
                "paged": self._paged, "memory": self._memory(nodes)}

    def _memory(self, rows):
        flat = 0 if self._flat_dropped or rows == 0 else self._capacity * _FLAT_ROW
        ivf = 0
        if self._nlist is not None:
            ivf = self._ivf_rows * _INDEX_ROW + self._nlist * _CODE_ROW
        hivf = 0
        if self._hivf is not None:
            b1, b2 = self._hivf[:2]
            leaf_rows = 0 if self._hivf_moved is not None else self._hivf_rows
            hivf = leaf_rows * _INDEX_ROW + (b1 + b1 * b2) * _CODE_ROW
        paged = self._paged_bytes if self._paged is not None else 0
        return {"flat_store": flat, "ivf": ivf, "hivf": hivf, "paged_mapping": paged}

    def _check_open(self):
        if self._sys.closed:
            raise Error("the index is closed")

    # -- ingestion ------------------------------------------------------------------------
    def _record_ids(self, new):
        need = self._nids + len(new)
        if need > len(self._ids):
            grown = np.empty(max(need, 2 * len(self._ids), 1024), np.uint32)
            grown[:self._nids] = self._ids[:self._nids]
            self._ids = grown
        self._ids[self._nids:need] = new
        self._nids = need

    def _side_file_rows(self):
        return _files.sidecar_whole_rows(os.fstat(self._side_fd).st_size)

    def add(self, vectors, ids=None):
        """Adds float rows of shape (n, 512). Without ids the rows are numbered by position
        (1-based over the whole index); with ids (n nonzero uint32 values) each row keeps its
        own. Returns the number of rows added.

        With a sidecar, raises Error when rows could not all be written to it (a full disk,
        a file-size limit): those rows stay in the index and are searchable, but the file no
        longer follows the index, so every later add raises without adding anything. Close
        the index and make it again from the sidecar (which holds a correct prefix) to go on.
        """
        rows = _float_rows(vectors, "vectors")
        if ids is not None:
            ids_a = np.asarray(ids)
            if ids_a.dtype.kind not in "iu" or ids_a.shape != (rows.shape[0],):
                raise ValueError(f"ids: expected {rows.shape[0]} integers (one per row), got "
                                 f"dtype {ids_a.dtype} shape {ids_a.shape}")
            if ids_a.size and (ids_a.min() < 1 or ids_a.max() > _U32_MAX):
                raise ValueError("ids: expected values from 1 to 2**32 - 1")
            ids_a = np.ascontiguousarray(ids_a, dtype=np.uint32)
        # One ingestion at a time, so that the rows of a call take consecutive positions
        # (their ids are recorded for open_paged's check) and the sidecar's growth during the
        # call belongs to this call alone.
        with self._ingest:
            self._check_open()
            if self._side_lost is not None:
                mem, in_file = self._side_lost
                raise Error(f"add: the sidecar '{self._side_path}' stopped receiving rows after "
                            f"a failed write (the index held {mem} rows, the file {in_file}); "
                            f"rows added now would be lost at a restart, so nothing was added")
            before = len(self)
            file_before = self._side_file_rows() if self._side_fd is not None else 0
            failure = None
            try:
                if ids is None:
                    self._sys.load(rows)
                else:
                    self._sys.add_with_ids(rows, ids_a)
            except Error as e:
                failure = e
            after = len(self)
            done = after - before
            if self._nids >= 0:
                self._record_ids(np.arange(before + 1, after + 1, dtype=np.uint32)
                                 if ids is None else ids_a[:done])
            if self._side_fd is not None:
                self._check_persisted(done, after, file_before, failure)
            if failure is not None:
                raise failure
            return done

    def _check_persisted(self, done, in_memory, file_before, failure):
        size = os.fstat(self._side_fd).st_size
        in_file = _files.sidecar_whole_rows(size)
        written = in_file - file_before
        if written >= done:
            return
        self._side_lost = (in_memory, in_file)
        directory = os.path.dirname(self._side_path) or "."
        cause = _files.write_cause(directory, _files.SIDECAR_ROW_BYTES, size)
        raise Error(f"add: {done} rows were added to the index but only {written} reached the "
                    f"sidecar '{self._side_path}' ({cause or 'cause not found by the package'}): "
                    f"the index holds {in_memory} rows in memory, the file {in_file}. The missing "
                    f"rows are searchable now but would not come back at a restart, and no "
                    f"later row is written to this file") from failure

    # -- index builds and files ------------------------------------------------------------
    def build_ivf(self, nlist, seed=1):
        """Trains and publishes an IVF of ``nlist`` buckets (needs 1000 rows or more)."""
        nlist = _u32(nlist, "nlist", 1)
        rows = len(self)
        self._sys.build_ivf(nlist, _u32(seed, "seed"))
        self._nlist = nlist
        self._ivf_rows = rows
        self._tuned.pop("ivf", None)

    def build_hivf(self, b1, b2, seed=1):
        """Trains and publishes a two-level H-IVF with b1 x b2 leaves. Only b1 and b2 up to
        PAGED_MAX_BRANCHING (64) can later be written with write_paged."""
        b1 = _u32(b1, "b1", 1)
        b2 = _u32(b2, "b2", 1)
        rows = len(self)
        self._sys.build_hivf(b1, b2, _u32(seed, "seed"))
        self._hivf_rows = rows
        self._hivf = (b1, b2, self._sys.stats()[4])
        self._hivf_moved = None
        self._tuned.pop("hivf", None)
        self._tuned.pop("paged", None)

    def write_paged(self, path):
        """Writes the current H-IVF to a paged .ivfp file and searches it from there on. The
        H-IVF's rows then live only in the file: a further write_paged needs build_hivf first.
        """
        path = os.fsdecode(os.fspath(path))
        self._check_open()
        if self._hivf is None:
            raise Error("write_paged: no H-IVF built (call build_hivf first)")
        b1, b2, built = self._hivf
        if self._hivf_moved is not None:
            raise Error(f"write_paged: the H-IVF's rows were moved to '{self._hivf_moved}' by "
                        f"the previous write_paged, so nothing is left to write; an H-IVF has "
                        f"to be built again first (call build_hivf)")
        gen = self._sys.stats()[4]
        if gen != built:
            raise Error(f"write_paged: the H-IVF is stale ({gen - built} rows were added since "
                        f"build_hivf); an H-IVF has to be built again first (call build_hivf)")
        if b1 > PAGED_MAX_BRANCHING or b2 > PAGED_MAX_BRANCHING:
            raise Error(f"write_paged: an H-IVF with b1 or b2 above {PAGED_MAX_BRANCHING} cannot "
                        f"be paged (this one has b1={b1}, b2={b2}); the paged search handles at "
                        f"most {PAGED_MAX_BRANCHING} buckets per level")
        st = _files.existing_regular(path, "write_paged: output")
        if st is not None and self._side_fd is not None:
            side = os.fstat(self._side_fd)
            if (st.st_dev, st.st_ino) == (side.st_dev, side.st_ino):
                raise Error(f"write_paged: '{path}' is this index's sidecar; writing the paged "
                            f"file there would replace the sidecar's rows")
        directory = _files.check_directory(path, "write_paged: output")
        need, most = _files.paged_size_bounds(b1, b2, len(self))
        cause = _files.space_cause(directory, need)
        if cause:
            raise Error(f"write_paged: cannot write '{path}': {cause}")
        try:
            self._sys.write_paged(path)
        except Error as e:
            cause = _files.write_cause(directory, most, needs="may need") or (
                "no cause found by the package; the library's line on standard error may say more")
            raise Error(f"{e}: {cause}", e.code) from None
        self._hivf_moved = path
        self._paged = (b1, b2)
        self._paged_gen = built
        self._paged_rows = len(self)
        self._paged_bytes = os.path.getsize(path)

    def open_paged(self, path):
        """Attaches an existing .ivfp file written from this index's rows (by write_paged,
        here or in an earlier run). A file written for other data (more rows than the index,
        or other ids at its rows) is refused. A file with fewer rows than the index is stale:
        path="paged" then raises until write_paged is run again."""
        path = os.fsdecode(os.fspath(path))
        with self._ingest:
            self._check_open()
            b1, b2, n_rows, row_ids, node_ids = _files.paged_rows(path, PAGED_MAX_BRANCHING)
            if self._nids < 0 or self._nids != len(self):
                raise Error(f"open_paged: the ids of this index's rows are not known to the "
                            f"package, so '{path}' cannot be checked against them")
            _files.check_paged_rows(path, n_rows, row_ids, node_ids, self._ids[:self._nids])
            gen = self._sys.stats()[4]
            self._sys.open_paged(path)
            self._tuned.pop("hivf", None)
            self._tuned.pop("paged", None)
            self._paged = (b1, b2)
            self._paged_gen = gen if n_rows == self._nids else None
            self._paged_rows = n_rows
            self._paged_bytes = os.path.getsize(path)

    def drop_flat(self):
        """Frees the flat int8 rows for good: no more ingestion, builds or brute force."""
        self._sys.drop_flat()
        self._flat_dropped = True

    # -- search ---------------------------------------------------------------------------
    def _options(self, k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                 min_similarity, what):
        if path not in _PATHS:
            raise ValueError(f"path: expected one of {', '.join(_PATHS)}, got {path!r}")
        o = _core.SearchOptions()
        o.k = _u32(k, "k", 1, _MAX_ROWS)
        o.rerank = bool(rerank)
        # Without a sidecar the library has no float rows to re-score from and would answer
        # from the int8 codes: a caller who asked for exact scores would not get them.
        if o.rerank and self._side_path is None:
            raise ValueError("rerank=True needs a sidecar (the exact float rows); this index "
                             "has none: pass sidecar= when making it, or rerank=False")
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
        # An attached paged file answers every H-IVF search in the library, so the in-memory
        # H-IVF counts only while no file is attached.
        paged_ok = self._paged is not None and self._paged_gen == gen
        hivf_ok = (self._paged is None and self._hivf is not None and self._hivf[2] == gen
                   and self._hivf_moved is None)
        if path == "ivf" and not ivf_ok:
            raise Error(f"{what}(path='ivf'): no current IVF (call build_ivf after the last add)")
        if path in ("hivf", "paged") and self._paged is not None and not paged_ok:
            missing = len(self) - self._paged_rows
            raise Error(f"{what}(path='{path}'): the attached paged file is stale: it misses "
                        f"{missing} rows added since it was written or attached (build_hivf "
                        f"and write_paged again, or search another path)")
        if path == "hivf" and not (hivf_ok or paged_ok):
            raise Error(f"{what}(path='hivf'): no current H-IVF (call build_hivf after the "
                        f"last add)")
        if path == "paged" and self._paged is None:
            raise Error(f"{what}(path='paged'): no paged file attached (write_paged or "
                        f"open_paged)")
        if path in ("ivf", "auto") and ivf_ok:
            o.use_ivf = True
            if nprobe is None:
                nprobe = self._tuned.get("ivf") or _default_nprobe(self._nlist)
            o.nprobe = _u32(nprobe, "nprobe", 1)
        # "auto" never hands a stale paged file to the library: it would answer without the
        # rows added since, and nothing would tell. A current IVF or brute force answers then.
        if path in ("hivf", "paged", "auto") and (hivf_ok or paged_ok):
            b1, b2 = self._paged if paged_ok else self._hivf[:2]
            o.use_hivf = True
            tuned = self._tuned.get("paged" if paged_ok else "hivf")
            if tuned is not None:
                nprobe_l1 = tuned[0] if nprobe_l1 is None else nprobe_l1
                nprobe_l2 = tuned[1] if nprobe_l2 is None else nprobe_l2
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
        Error when it is missing or stale (rows added since its build, or since the paged
        file was written or attached; an attached paged file also answers "hivf"); "auto"
        takes the current paged file or H-IVF, then the current IVF, then brute force, and
        never a stale index, so its answers cover every row (Error with code -7 when only
        brute force could answer and drop_flat() removed it). rerank re-scores exactly from
        the sidecar (ValueError without one).

        nprobe (IVF buckets probed) and nprobe_l1 / nprobe_l2 (H-IVF and paged buckets probed
        per level): None means the setting tune() chose for that path, else nlist // 16 for
        the IVF and half of b1 / b2 (rounded up) per H-IVF level; on a 100k-row clustered set
        these give recall@10 of about 0.99 (IVF, nlist 1265) and 0.91 (36 x 36 H-IVF). Larger
        values find more true neighbours and take longer; tune() picks them for a target."""
        q = _float_vector(query, DIM, "query")
        o = self._options(k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                          min_similarity, "search")
        return self._sys.search(q, o)

    def search_batch(self, queries, k=10, *, path="auto", nprobe=None, nprobe_l1=None,
                     nprobe_l2=None, rerank=False, rerank_factor=0, min_similarity=-1.0,
                     threads=1):
        """search() for each row of ``queries`` (nq, 512): ``(ids[nq, k], scores[nq, k])``,
        padded with -1 and NaN where a query has fewer than k results. ``threads`` > 1 splits
        the batch into that many contiguous parts searched at once on threads of the package
        (the library is called with the interpreter lock released); the answers are the same
        as with one thread."""
        q = _float_rows(queries, "queries")
        o = self._options(k, path, nprobe, nprobe_l1, nprobe_l2, rerank, rerank_factor,
                          min_similarity, "search_batch")
        threads = min(_u32(threads, "threads", 1, 1024), len(q))
        if path == "ivf":
            run = lambda part, first: self._sys.search_batch_ivf(part, o)  # noqa: E731
        else:
            run = lambda part, first: self._sys.search_batch_loop(part, o, first)  # noqa: E731
        if threads == 1:
            return run(q, 0)
        bounds = np.linspace(0, len(q), threads + 1).astype(int)
        with ThreadPoolExecutor(threads) as pool:
            parts = list(pool.map(lambda i: run(q[bounds[i]:bounds[i + 1]], int(bounds[i])),
                                  range(threads)))
        return (np.concatenate([p[0] for p in parts]), np.concatenate([p[1] for p in parts]))

    def tune(self, queries, target_recall=0.95, k=10, path="auto", *, verbose=False):
        """Chooses the cheapest probe setting of ``path`` ("ivf", "hivf", "paged"; "auto" is
        the index "auto" would search) whose recall@k on ``queries`` reaches
        ``target_recall``, and makes it this object's default for later searches of that
        path (until the index is built again). The true neighbours come from brute force,
        re-scored from the sidecar when one is attached, so the flat rows must still be here.
        Settings are tried from the cheapest up (nprobe 1, 2, 4, ..., nlist; for an H-IVF
        n_probe_l1 x n_probe_l2 in order of their product) and the search stops at the first
        that reaches the target; when none does, the widest (exact over the index) is kept.

        Returns a dict: "path", "setting" (nprobe, or (nprobe_l1, nprobe_l2)), "recall", and
        "tried": a list of (setting, recall, queries_per_second). verbose prints the list."""
        import time
        q = _float_rows(queries, "queries")
        k = _u32(k, "k", 1, _MAX_ROWS)
        target = float(target_recall)
        if not 0.0 < target <= 1.0:
            raise ValueError(f"target_recall: expected a value in (0, 1], got {target_recall!r}")
        if path == "auto":
            probe = self._options(k, "auto", None, None, None, False, 0, -1.0, "tune")
            if probe.use_hivf:
                path = "paged" if self._paged is not None else "hivf"
            elif probe.use_ivf:
                path = "ivf"
            else:
                raise Error("tune: no current IVF, H-IVF or paged file to tune (build one)")
        if path not in ("ivf", "hivf", "paged"):
            raise ValueError(f"path: expected ivf, hivf, paged or auto, got {path!r}")
        self._options(k, path, None, None, None, False, 0, -1.0, "tune")   # raises if absent
        # An attached paged file answers every H-IVF search, so its setting is kept under one key.
        key = "paged" if path != "ivf" and self._paged is not None else path
        truth, _ = self.search_batch(q, k, path="brute", rerank=self._side_path is not None)
        if path == "ivf":
            settings = [(p,) for p in _probe_ladder(self._nlist)]
        else:
            b1, b2 = self._paged if path == "paged" else self._hivf[:2]
            settings = sorted(((a, b) for a in _probe_ladder(b1) for b in _probe_ladder(b2)),
                              key=lambda s: (s[0] * s[1], s))
        tried = []
        for s in settings:
            kw = {"nprobe": s[0]} if path == "ivf" else {"nprobe_l1": s[0], "nprobe_l2": s[1]}
            t0 = time.perf_counter()
            found, _ = self.search_batch(q, k, path=path, **kw)
            qps = len(q) / max(time.perf_counter() - t0, 1e-9)
            r = _recall(found, truth)
            tried.append((s[0] if path == "ivf" else s, r, qps))
            if verbose:
                print(f"{path} {tried[-1][0]}: recall@{k} {r:.3f}, {qps:.0f} queries/s")
            if r >= target:
                break
        best = tried[-1]
        self._tuned[key] = best[0]
        return {"path": path, "setting": best[0], "recall": best[1], "tried": tried}


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
