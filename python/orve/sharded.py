"""A directory of several orve.Index shards searched as one index.

    with orve.ShardedIndex("graph.idx", shard_rows=1_000_000, nlist=1024) as index:
        index.add(vectors, ids)                 # node ids: nonzero uint32, unique
        index.delete([17, 42])
        ids, scores = index.search(query, 10, path="paged")

Layout of the directory:

    manifest.json           shards in order, their state and the build settings
    shard-000001/rows.vec   exact float rows (the library's sidecar file)
                 ids.u32    node id of each row: row key r (1-based) -> ids[r - 1]
                 dead.tmb   tombstones, append-only 16-byte records
                 index.ivfp paged H-IVF, written when the shard is sealed

Inside a shard the library knows a row by its key (its 1-based position in the shard), not by
its node id: a node updated twice in the same shard then has two rows that a tombstone can
tell apart. The node ids are mapped back after each shard's search.

The newest shard is the open "tail": it takes new rows and is searched by brute force. When it
holds shard_rows rows it is sealed in a background thread (H-IVF, optional IVF, paged file) and
the manifest switches to the sealed state; a sealed shard never takes another row, so its
indexes never go stale.
"""

from __future__ import annotations

import fcntl
import itertools
import json
import os
import shutil
import struct
import threading
import zlib
from concurrent.futures import ThreadPoolExecutor

import numpy as np

from . import Error, Index, _MAX_ROWS, _MIN_INDEX_ROWS, _PATHS, _U32_MAX, _float_rows, _u32

__all__ = ["ShardedIndex", "merge_topk"]

MANIFEST = "manifest.json"
_FORMAT = "orve-sharded"
_MIN_BUILD_ROWS = _MIN_INDEX_ROWS   # the library refuses to build an index from fewer rows
_SIDECAR_HEADER = 32
_SIDECAR_ROW = np.dtype([("id", "<u4"), ("live", "u1"), ("pad", "V3"), ("v", "<f4", (512,))])
_TOMB = struct.Struct("<4sIII")  # magic, row key, reserved, crc32 of the first 12 bytes
_TOMB_MAGIC = b"OTMB"
_CRASH_ENV = "ORVE_SHARDED_CRASH_AT"   # test hook: os._exit at a named point
_LOAD_CHUNK = 65536


# -- results ------------------------------------------------------------------------------
def merge_topk(parts, k):
    """Merges partial result lists into the k best per query: score descending, ties to the
    lower id. parts: (ids int64 (nq, m), scores float32 (nq, m)) pairs, -1 marking no row.
    Returns (ids (nq, k), scores (nq, k)) padded with -1 and NaN."""
    ids = np.concatenate([np.asarray(p[0], dtype=np.int64) for p in parts], axis=1)
    scores = np.concatenate([np.asarray(p[1], dtype=np.float32) for p in parts], axis=1)
    valid = ids >= 0
    by_score = np.where(valid, -scores.astype(np.float64), np.inf)
    by_id = np.where(valid, ids, np.iinfo(np.int64).max)
    order = np.lexsort((by_id, by_score), axis=1)[:, :k]
    out_ids = np.take_along_axis(ids, order, 1)
    out_scores = np.take_along_axis(scores, order, 1)
    keep = np.take_along_axis(valid, order, 1)
    out_ids[~keep] = -1
    out_scores[~keep] = np.nan
    short = k - out_ids.shape[1]
    if short > 0:
        out_ids = np.pad(out_ids, ((0, 0), (0, short)), constant_values=-1)
        out_scores = np.pad(out_scores, ((0, 0), (0, short)), constant_values=np.nan)
    return out_ids, out_scores


# -- durable files ------------------------------------------------------------------------
def _fsync_path(path):
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def write_json_atomic(path, obj):
    """Temp file, fsync, rename, fsync of the directory: a reader sees the old or the new
    file, whole, even after a crash at any point."""
    tmp = f"{path}.tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        json.dump(obj, f, indent=1, sort_keys=True)
        f.flush()
        os.fsync(f.fileno())
    os.replace(tmp, path)
    _fsync_path(os.path.dirname(os.path.abspath(path)))


def read_manifest(directory):
    with open(os.path.join(directory, MANIFEST), encoding="utf-8") as f:
        manifest = json.load(f)
    if manifest.get("format") != _FORMAT or manifest.get("version") != 1:
        raise Error(f"{directory}: not a sharded index manifest (format/version)")
    return manifest


def _crash_point(name):
    if os.environ.get(_CRASH_ENV) == name:
        os._exit(86)


def sidecar_rows(path):
    """The rows of a sidecar file, read-only, as a structured memmap (id, live, v). A trailing
    partial row (a crash during an append) is left out, as the library does."""
    size = os.path.getsize(path) if os.path.exists(path) else 0
    n = max(0, (size - _SIDECAR_HEADER) // _SIDECAR_ROW.itemsize)
    if n == 0:
        return np.zeros(0, dtype=_SIDECAR_ROW)
    with open(path, "rb") as f:
        if f.read(8) != b"ORVEVECA":
            raise Error(f"{path}: not a vector sidecar file")
    return np.memmap(path, dtype=_SIDECAR_ROW, mode="r", offset=_SIDECAR_HEADER, shape=(n,))


def _read_tombstones(path, start=0):
    """Row keys of the valid records from byte `start`, and the byte offset after the last
    valid one. Invalid records at the end are a torn append and are ignored; an invalid
    record followed by a valid one is damage, and resurrecting a deleted row would answer
    wrongly, so that raises."""
    if not os.path.exists(path):
        return [], 0
    with open(path, "rb") as f:
        f.seek(start)
        data = f.read()
    keys, end, bad = [], start, None
    for off in range(0, len(data) - _TOMB.size + 1, _TOMB.size):
        rec = data[off:off + _TOMB.size]
        magic, key, _, crc = _TOMB.unpack(rec)
        if magic != _TOMB_MAGIC or crc != zlib.crc32(rec[:12]) or key == 0:
            bad = bad if bad is not None else start + off
            continue
        if bad is not None:
            raise Error(f"{path}: damaged tombstone record at byte {bad}")
        keys.append(key)
        end = start + off + _TOMB.size
    return keys, end


# -- one shard ----------------------------------------------------------------------------
class Shard:
    """One orve.Index with its files. writable=False never writes a byte of the shard: the
    rows are read from the sidecar and loaded into a private index (used by serving
    processes that share the directory with a writer)."""

    def __init__(self, directory, entry, settings, writable=True, create=False):
        self.dir = os.path.join(directory, entry["name"])
        self.name = entry["name"]
        self.state = entry["state"]
        self.entry = dict(entry)
        self.settings = settings
        self.capacity = settings["shard_rows"]
        self.ids = np.zeros(self.capacity, dtype=np.uint32)
        self.dead = np.zeros(self.capacity + 1, dtype=bool)   # by key; key 0 unused
        self.dead_count = 0
        self.writable = writable
        self._tomb_end = 0
        self._users = 0                       # searches holding this shard
        self._idle = threading.Condition()
        if create:
            os.makedirs(self.dir)
        elif not os.path.exists(self.path("rows.vec")):
            # A shard the manifest names always has its sidecar (made with the shard). Seen
            # missing, e.g. on a worker where the directory is not shared, it must not be
            # served as an empty shard: its rows would silently drop out of every answer.
            raise Error(f"{self.path('rows.vec')}: missing (is the directory shared?)")
        self.index = self._open_index()
        self._load_ids()
        self.refresh_tombstones()
        if self.state == "sealed":
            self._attach_sealed()

    def path(self, name):
        return os.path.join(self.dir, name)

    @property
    def rows(self):
        """Row keys handed out (live, deleted and lost ones)."""
        return self.n

    @property
    def live_rows(self):
        return self.n - self.dead_count

    def _open_index(self):
        if self.writable:
            return Index(capacity=self.capacity, sidecar=self.path("rows.vec"))
        index = Index(capacity=self.capacity)
        rows = sidecar_rows(self.path("rows.vec"))
        for i in range(0, len(rows), _LOAD_CHUNK):
            chunk = rows[i:i + _LOAD_CHUNK]
            chunk = chunk[(chunk["live"] != 0) & (chunk["id"] != 0)]
            if len(chunk):
                index.add(np.ascontiguousarray(chunk["v"]), ids=chunk["id"])
        return index

    def _load_ids(self):
        rows = sidecar_rows(self.path("rows.vec"))
        keys = np.asarray(rows["id"][rows["live"] != 0])   # the rows the index holds
        self.n = int(keys.max()) if len(keys) else 0
        ids = np.fromfile(self.path("ids.u32"), dtype="<u4") if os.path.exists(
            self.path("ids.u32")) else np.zeros(0, np.uint32)
        if len(ids) < self.n:
            # Ids are made durable before their rows are added, so this is damage: refuse
            # rather than report rows under ids that are not theirs.
            raise Error(f"{self.dir}: {self.n} rows but only {len(ids)} node ids")
        if len(ids) > self.n and self.writable:
            # Ids of rows that never reached the sidecar (a crash inside add): drop them.
            os.truncate(self.path("ids.u32"), self.n * 4)
        self.ids[:self.n] = ids[:self.n]
        present = np.zeros(self.n + 1, dtype=bool)
        present[np.asarray(keys, dtype=np.int64)] = True
        lost = np.flatnonzero(~present[1:]) + 1   # keys whose sidecar append failed
        self.dead[lost] = True
        self.dead_count = len(lost)

    def refresh_tombstones(self):
        """Applies tombstones appended since the last call (by this or another process)."""
        keys, self._tomb_end = _read_tombstones(self.path("dead.tmb"), self._tomb_end)
        self._mark_dead(keys)

    def _mark_dead(self, keys):
        keys = np.asarray(keys, dtype=np.int64)
        keys = keys[(keys >= 1) & (keys <= self.n)]
        fresh = np.unique(keys[~self.dead[keys]])
        self.dead[fresh] = True
        self.dead_count += len(fresh)

    def _attach_sealed(self):
        self.index.open_paged(self.path("index.ivfp"))
        if self.entry.get("nlist"):
            self.index.build_ivf(self.entry["nlist"], self.settings["seed"])

    # -- writes (the owning ShardedIndex serialises them) ---------------------------------
    def append(self, vectors, ids):
        n0 = self.n
        m = len(ids)
        with open(self.path("ids.u32"), "ab") as f:
            f.truncate(n0 * 4)
            f.write(np.asarray(ids, dtype="<u4").tobytes())
            f.flush()
            os.fsync(f.fileno())
        self.ids[n0:n0 + m] = ids
        keys = np.arange(n0 + 1, n0 + m + 1, dtype=np.uint32)
        before = len(self.index)
        try:
            self.index.add(vectors, ids=keys)
        finally:
            # Rows are committed in order, so a failure part-way keeps the first ones.
            self.n = n0 + (len(self.index) - before)

    def tombstone(self, keys):
        with open(self.path("dead.tmb"), "ab") as f:
            f.truncate(self._tomb_end)          # cut a torn record left by a crash
            for key in keys:
                head = _TOMB_MAGIC + struct.pack("<II", int(key), 0)
                f.write(head + struct.pack("<I", zlib.crc32(head)))
            f.flush()
            os.fsync(f.fileno())
            self._tomb_end = f.tell()
        self._mark_dead(keys)

    def seal(self):
        """Builds the indexes and writes the paged file; the caller switches the manifest."""
        rows = len(self.index)
        b1, b2 = self.settings.get("hivf") or (_auto_branching(rows),) * 2
        if b1 * b2 > rows:
            # A compacted shard can hold fewer rows than the leaves asked for; the library
            # would refuse the build, so this shard takes the size-derived branching.
            b1 = b2 = _auto_branching(rows)
        seed = self.settings["seed"]
        self.index.build_hivf(b1, b2, seed)
        nlist = self.settings.get("nlist")
        if nlist:
            self.index.build_ivf(min(nlist, rows), seed)
        self.index.write_paged(self.path("index.ivfp"))
        _fsync_path(self.path("index.ivfp"))
        _fsync_path(self.path("rows.vec"))
        _crash_point("seal-written")
        self.entry.update(state="sealed", rows=self.n, hivf=[b1, b2],
                          nlist=min(nlist, rows) if nlist else None)

    # -- search ---------------------------------------------------------------------------
    def topk(self, queries, k, path, probes):
        """The k best live rows of this shard for each query: (ids, scores) (nq, k). A shard
        not sealed is searched by brute force. Deleted rows are asked for on top of k and
        filtered out; while a query comes back short of k live rows and its shard list was
        full, it is asked again with more, up to k + deleted rows, which is then exact."""
        nq = len(queries)
        out_ids = np.full((nq, k), -1, dtype=np.int64)
        out_scores = np.full((nq, k), np.nan, dtype=np.float32)
        if self.n == 0:
            return out_ids, out_scores
        path = path if self.state == "sealed" else "brute"
        most = min(self.n, k + self.dead_count)
        fetch = min(most, k + min(self.dead_count, max(k, 16)))
        todo = np.arange(nq)
        while True:
            keys, scores = self.index.search_batch(queries[todo], fetch, path=path, **probes)
            ids, scores = merge_topk([self._live_ids(keys, scores)], k)
            out_ids[todo], out_scores[todo] = ids, scores
            short = ((ids >= 0).sum(1) < k) & ((keys >= 0).sum(1) == fetch)
            if not short.any() or fetch >= most:
                return out_ids, out_scores
            todo = todo[short]
            fetch = min(most, fetch * 4)

    def _live_ids(self, keys, scores):
        k = np.clip(keys, 0, self.n)
        live = (keys > 0) & (keys <= self.n) & ~self.dead[k]
        ids = np.where(live, self.ids[np.maximum(k - 1, 0)].astype(np.int64), -1)
        return ids, np.where(live, scores, np.nan).astype(np.float32)

    def hold(self):
        with self._idle:
            self._users += 1

    def release(self):
        with self._idle:
            self._users -= 1
            self._idle.notify_all()

    def close(self):
        """Closes the index once no search holds the shard any more."""
        with self._idle:
            self._idle.wait_for(lambda: self._users == 0)
            self.index.close()


def _auto_branching(rows):
    """b1 = b2 ~ rows ** 0.25: about sqrt(rows) leaves of about sqrt(rows) rows each."""
    return max(1, int(round(rows ** 0.25)))


# -- search front shared by the local and the served index --------------------------------
class SearchFront:
    """search / search_batch over partial top-k lists; a subclass gives ``_partials``."""

    def search_batch(self, queries, k=10, *, path="auto", nprobe=None, nprobe_l1=None,
                     nprobe_l2=None, min_similarity=-1.0):
        """The k best live rows over all shards for each query: (ids (nq, k) int64, scores
        float32), padded with -1 / NaN. Shards not sealed yet are always searched exactly;
        ``path`` (as in Index.search) applies to sealed ones, so path="brute" gives exactly
        the answer of one brute-force scan over all live rows (when several rows tie exactly
        at the k-th score, which of them is kept may differ: a single scan keeps the one it
        met first, the merge the lower id)."""
        q = _float_rows(queries, "queries")
        k = _u32(k, "k", 1, _MAX_ROWS)
        if path not in _PATHS:
            raise ValueError(f"path: expected one of {', '.join(_PATHS)}, got {path!r}")
        for value, name in ((nprobe, "nprobe"), (nprobe_l1, "nprobe_l1"),
                            (nprobe_l2, "nprobe_l2")):
            if value is not None:
                _u32(value, name, 1)
        probes = {"nprobe": nprobe, "nprobe_l1": nprobe_l1, "nprobe_l2": nprobe_l2,
                  "min_similarity": float(min_similarity)}
        none = (np.full((len(q), 0), -1, np.int64), np.zeros((len(q), 0), np.float32))
        return merge_topk([none] + list(self._partials(q, k, path, probes)), k)

    def search(self, query, k=10, **options):
        """search_batch for one query (512 floats): (ids, scores) without padding."""
        ids, scores = self.search_batch(np.asarray(query)[None, :], k, **options)
        n = int((ids[0] >= 0).sum())
        return ids[0, :n], scores[0, :n]


# -- the sharded index --------------------------------------------------------------------
class ShardedIndex(SearchFront):
    """Several orve.Index shards in one directory, searched as one index.

    ``shard_rows`` (1000 to 1,100,000) is the capacity of each shard; ``hivf`` = (b1, b2) the
    H-IVF of a sealed shard (None: about rows ** 0.25 each); ``nlist`` also builds an IVF of
    that many buckets at each seal and each reopen (None: no IVF, path="ivf" then raises).
    Settings are kept in the manifest; reopening with different ones raises ValueError.
    ``background_seal=False`` seals in the calling thread (add then returns later).
    """

    def __init__(self, directory, shard_rows=None, *, hivf=None, nlist=None, seed=None,
                 threads=None, background_seal=True):
        self.directory = os.fsdecode(os.fspath(directory))
        os.makedirs(self.directory, exist_ok=True)
        self._lock = threading.RLock()       # adds, deletes, seals' manifest switches
        self._view = threading.Lock()        # the shard list as searches take it
        self._where = None                   # node id -> (shard, key), built on first write
        self._closed = False
        self._lock_fd = _lock_directory(self.directory)
        self.shards = []
        self._pool = ThreadPoolExecutor(threads or min(32, os.cpu_count() or 1))
        self._sealer = ThreadPoolExecutor(1) if background_seal else None
        self._seals = []
        try:
            given = {"shard_rows": shard_rows, "hivf": hivf, "nlist": nlist, "seed": seed}
            self._manifest = self._load_or_create(given)
            self.settings = self._manifest["settings"]
            self._remove_orphans()
            for entry in self._manifest["shards"]:
                self.shards.append(Shard(self.directory, entry, self.settings))
        except BaseException:
            self.close()    # releases the shards opened so far and the directory lock
            raise
        for shard in self.shards:
            if shard.state == "open" and shard.rows >= self.capacity:
                self._start_seal(shard)      # full before a crash: seal it again

    def _load_or_create(self, given):
        if os.path.exists(os.path.join(self.directory, MANIFEST)):
            manifest = read_manifest(self.directory)
            for name, value in given.items():
                have = manifest["settings"][name]
                if value is not None and _norm(value) != have:
                    raise ValueError(f"{name}: the directory was made with {have!r}")
            return manifest
        rows = _u32(given["shard_rows"] or 1_000_000, "shard_rows", _MIN_BUILD_ROWS,
                    _MAX_ROWS)
        hivf = given["hivf"]
        if hivf is not None:
            if len(hivf) != 2:
                raise ValueError(f"hivf: expected (b1, b2), got {hivf!r}")
            hivf = [_u32(b, "hivf", 1, rows) for b in hivf]
        settings = {"shard_rows": rows, "hivf": hivf,
                    "nlist": given["nlist"] and _u32(given["nlist"], "nlist", 1),
                    "seed": _u32(1 if given["seed"] is None else given["seed"], "seed")}
        manifest = {"format": _FORMAT, "version": 1, "settings": settings, "shards": [],
                    "next_shard": 1}
        write_json_atomic(os.path.join(self.directory, MANIFEST), manifest)
        return manifest

    def _remove_orphans(self):
        """Shard directories the manifest does not name: a compaction's old shard whose
        removal a crash cut short, or a new shard made before its manifest was written. A
        shard takes rows only once named, so they hold no row that was acknowledged."""
        named = {e["name"] for e in self._manifest["shards"]}
        for name in os.listdir(self.directory):
            if name.startswith("shard-") and name not in named:
                shutil.rmtree(os.path.join(self.directory, name), ignore_errors=True)

    @property
    def capacity(self):
        return self.settings["shard_rows"]

    # -- lifetime -------------------------------------------------------------------------
    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __len__(self):
        return sum(s.live_rows for s in self.shards)

    def wait_sealed(self):
        """Returns when every seal started so far has finished (raising its error, if any)."""
        while self._seals:
            self._seals.pop(0).result()

    def close(self):
        """Waits for running seals, then releases every shard. Idempotent."""
        if self._closed:
            return
        try:
            self.wait_sealed()
        finally:
            self._closed = True
            for s in self.shards:
                s.close()
            self._pool.shutdown()
            if self._sealer:
                self._sealer.shutdown()
            os.close(self._lock_fd)

    def _check_open(self):
        if self._closed:
            raise Error("the sharded index is closed")

    # -- manifest -------------------------------------------------------------------------
    def _publish(self):
        """Writes the manifest from the shards' entries (caller holds the lock)."""
        self._manifest["shards"] = [s.entry for s in self.shards]
        write_json_atomic(os.path.join(self.directory, MANIFEST), self._manifest)

    def _fresh_shard(self):
        """An empty shard under the next unused name. A directory of that name can only be
        left by a crash before the manifest named it: it holds no acknowledged row, and
        reusing its files would bring back rows nobody added, so it is removed."""
        name = f"shard-{self._manifest['next_shard']:06d}"
        self._manifest["next_shard"] += 1
        shutil.rmtree(os.path.join(self.directory, name), ignore_errors=True)
        return Shard(self.directory, {"name": name, "state": "open"}, self.settings,
                     create=True)

    def _new_shard(self):
        shard = self._fresh_shard()
        self.shards.append(shard)
        self._publish()     # named in the manifest before it takes a row
        return shard

    def _tail(self):
        last = self.shards[-1] if self.shards else None
        if last is None or last.state != "open" or last.rows >= self.capacity:
            last = self._new_shard()
        return last

    # -- sealing --------------------------------------------------------------------------
    def _start_seal(self, shard):
        shard.state = "sealing"     # takes no more rows; searched by brute force meanwhile
        if self._sealer is None:
            self._seal(shard)
        else:
            self._seals.append(self._sealer.submit(self._seal, shard))

    def _seal(self, shard):
        try:
            shard.seal()
        except BaseException:
            shard.state = "open"    # the manifest still says open; brute force stays exact
            raise
        with self._lock:
            self._publish()
            shard.state = "sealed"

    # -- writes ---------------------------------------------------------------------------
    def _id_map(self):
        """Node id -> (shard, key) of every live row. Only writes need it, so a process that
        only searches never pays its memory (about 100 bytes a row)."""
        if self._where is None:
            where = {}
            for s in self.shards:
                keys = np.flatnonzero(~s.dead[1:s.rows + 1]) + 1
                where.update(zip(s.ids[keys - 1].tolist(), zip(itertools.repeat(s),
                                                                  keys.tolist())))
            self._where = where
        return self._where

    def add(self, vectors, ids=None):
        """Adds float rows (n, 512) under node ids (n distinct nonzero uint32 values, none of
        them live already); without ids they follow the largest id in use. Returns n."""
        rows = _float_rows(vectors, "vectors")
        with self._lock:
            self._check_open()
            where = self._id_map()
            ids = self._check_ids(ids, len(rows), where)
            done = 0
            while done < len(rows):
                tail = self._tail()
                m = min(len(rows) - done, self.capacity - tail.rows)
                first = tail.rows + 1
                try:
                    tail.append(rows[done:done + m], ids[done:done + m])
                finally:
                    added = tail.rows - first + 1
                    where.update(zip(ids[done:done + added].tolist(),
                                     zip(itertools.repeat(tail), range(first, first + added))))
                done += m
                if tail.rows >= self.capacity:
                    self._start_seal(tail)
            return len(rows)

    def _check_ids(self, ids, n, where):
        if ids is None:
            start = max(where, default=0) + 1
            if start + n - 1 > _U32_MAX:
                raise ValueError("ids: no room left after the largest id in use")
            return np.arange(start, start + n, dtype=np.uint32)
        a = np.asarray(ids)
        if a.dtype.kind not in "iu" or a.shape != (n,):
            raise ValueError(f"ids: expected {n} integers (one per row), got dtype {a.dtype} "
                             f"shape {a.shape}")
        if a.min() < 1 or a.max() > _U32_MAX:
            raise ValueError("ids: expected values from 1 to 2**32 - 1")
        a = a.astype(np.uint32)
        if len(np.unique(a)) != n:
            raise ValueError("ids: the same id twice in one call")
        taken = [i for i in a.tolist() if i in where]
        if taken:
            raise ValueError(f"ids: {len(taken)} already live (first: {taken[0]}); use update")
        return a

    def delete(self, ids):
        """Deletes the rows of these node ids; durable when it returns. Unknown ids raise
        KeyError and nothing is deleted."""
        ids = [int(i) for i in np.atleast_1d(np.asarray(ids))]
        with self._lock:
            self._check_open()
            where = self._id_map()
            missing = [i for i in ids if i not in where]
            if missing:
                raise KeyError(f"no live row with id {missing[0]}")
            by_shard = {}
            for i in set(ids):
                shard, key = where[i]
                by_shard.setdefault(shard, []).append(key)
            for shard, keys in by_shard.items():
                shard.tombstone(keys)
            for i in ids:
                where.pop(i, None)

    def update(self, node_id, vector):
        """Replaces the vector of a live node: delete, then add."""
        # Delete first: a crash in between leaves the node absent (the caller had no answer
        # and can retry), never present twice.
        with self._lock:
            self.delete([node_id])
            self.add(np.asarray(vector)[None, :], [node_id])

    def compact(self):
        """Rewrites every sealed shard that has deleted rows with only its live rows, and
        drops shards left empty. A shard left with fewer than 1000 rows (too few for an
        index) stays unsealed and is searched exactly. Searches go on meanwhile; writes
        wait."""
        with self._lock:
            self._check_open()
            # A shard still being sealed is not in the "sealed" state and is left alone.
            for old in list(self.shards):
                if old.state == "sealed" and old.dead_count:
                    self._compact_one(old)
            self._where = None

    def _compact_one(self, old):
        new = self._fresh_shard()
        rows = sidecar_rows(old.path("rows.vec"))
        for i in range(0, len(rows), _LOAD_CHUNK):
            chunk = rows[i:i + _LOAD_CHUNK]
            chunk = chunk[(chunk["live"] != 0) & (chunk["id"] >= 1) & (chunk["id"] <= old.rows)]
            chunk = chunk[~old.dead[chunk["id"]]]
            if len(chunk):
                new.append(np.ascontiguousarray(chunk["v"]), old.ids[chunk["id"] - 1])
        if new.rows >= _MIN_BUILD_ROWS:
            new.seal()
            new.state = "sealed"
        shards = [s for s in self.shards if s is not old]
        if new.rows:
            shards.insert(self.shards.index(old), new)
        with self._view:
            self.shards = shards
        self._publish()
        old.close()     # after the searches that still hold it
        if not new.rows:
            new.close()
            shutil.rmtree(new.dir, ignore_errors=True)
        shutil.rmtree(old.dir, ignore_errors=True)

    # -- search ---------------------------------------------------------------------------
    def _partials(self, queries, k, path, probes):
        # The list and a hold on each of its shards are taken together, so a compaction
        # that swaps a shard meanwhile cannot close one this search is about to read; the
        # search sees either the old shard or its replacement, never neither.
        with self._view:
            self._check_open()
            shards = list(self.shards)
            for shard in shards:
                shard.hold()
        try:
            return list(self._pool.map(lambda s: s.topk(queries, k, path, probes), shards))
        finally:
            for shard in shards:
                shard.release()


def _lock_directory(directory):
    """One writer per directory: a second one would hand out the same row keys and shard
    names. The lock goes with the process, so a crash never leaves it behind."""
    fd = os.open(os.path.join(directory, "lock"), os.O_RDWR | os.O_CREAT, 0o644)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(fd)
        raise Error(f"{directory}: already open in a ShardedIndex (one writer at a time)")
    return fd


def _norm(value):
    """Settings as JSON keeps them (tuples become lists)."""
    return list(value) if isinstance(value, tuple) else value
