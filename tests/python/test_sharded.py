"""ShardedIndex against one brute-force orve.Index over the same live rows: fan-out and merge,
deletes and updates across a reopen, a crash inside a seal, and serving on a Dask cluster."""

import json
import os
import subprocess
import sys

import numpy as np
import pytest

import orve
from conftest import assert_same, unit_rows

SHARD_ROWS = 1000      # the smallest shard that can still be sealed (index builds need 1000)


def reference(rows, ids, queries, k):
    """One brute-force scan over all rows: the answer the shards must give together."""
    with orve.Index(capacity=len(rows) + 1) as ix:
        ix.add(rows, ids=ids)
        return ix.search_batch(queries, k, path="brute")


@pytest.fixture(scope="module")
def data():
    rng = np.random.default_rng(7)
    rows = unit_rows(rng, 2600)
    ids = rng.permutation(np.arange(1, 50_000))[:len(rows)].astype(np.uint32)
    return rows, ids, unit_rows(rng, 9)


@pytest.fixture
def sharded_dir(data, tmp_path):
    """Two sealed shards and an open tail of 600 rows."""
    rows, ids, _ = data
    with orve.ShardedIndex(tmp_path / "idx", SHARD_ROWS, hivf=(4, 4), nlist=16) as s:
        s.add(rows[:1500], ids[:1500])          # spans a shard boundary
        s.add(rows[1500:], ids[1500:])
        s.wait_sealed()
        assert [sh.state for sh in s.shards] == ["sealed", "sealed", "open"]
    return tmp_path / "idx"


def test_deletes_updates_and_compaction_survive_reopen(data, sharded_dir):
    rows, ids, queries = data
    rows, ids = rows.copy(), ids.astype(np.int64)
    with orve.ShardedIndex(sharded_dir) as s:
        assert len(s) == len(rows)
        for k in (1, 700):  # fan-out and merge, also past a shard's size
            assert_same(s.search_batch(queries, k, path="brute"), reference(rows, ids, queries, k))
        assert_same(s.search(queries[3], 7, path="brute"),
                    [a[0] for a in reference(rows, ids, queries[3:4], 7)])
        for path in ("ivf", "paged", "auto"):    # index paths answer with real, distinct ids
            got = s.search_batch(queries, 10, path=path)[0]
            assert np.isin(got, ids).all() and all(len(set(r)) == 10 for r in got)
        best = s.search_batch(queries, 30, path="brute")[0]
        # Query 0 loses its 30 best rows: every shard's first candidates are dead.
        gone = np.unique(np.concatenate([best[0], best[:, :3].ravel(), ids[[0, 1100, 2500]]]))
        s.delete(gone)
        # One update in a sealed shard, one in the tail, the tail one twice.
        for pos, q in ((10, 0), (2550, 1), (2550, 2)):
            s.update(int(ids[pos]), queries[q])
            rows[pos] = queries[q]
        with pytest.raises(ValueError):
            s.add(rows[:1], ids[5:6])            # a live id
        with pytest.raises(KeyError):
            s.delete([int(gone[0])])             # already gone
        with pytest.raises(orve.Error):
            orve.ShardedIndex(sharded_dir)       # a second writer
    with pytest.raises(ValueError):
        orve.ShardedIndex(sharded_dir, 2 * SHARD_ROWS)     # not the settings it was made with
    # A torn tombstone append (crash mid-write) is ignored on reopen.
    with open(sharded_dir / "shard-000001" / "dead.tmb", "ab") as f:
        f.write(b"OTMB\x01\x02")
    keep = ~np.isin(ids, gone)
    want = reference(rows[keep], ids[keep], queries, 12)
    with orve.ShardedIndex(sharded_dir) as s:
        assert len(s) == keep.sum()
        assert_same(s.search_batch(queries, 12, path="brute"), want)
        s.compact()
        assert all(sh.dead_count == 0 for sh in s.shards if sh.state == "sealed")
        assert_same(s.search_batch(queries, 12, path="brute"), want)
    with orve.ShardedIndex(sharded_dir) as s:
        assert_same(s.search_batch(queries, 12, path="brute"), want)


def test_crash_between_seal_write_and_manifest_switch(data, tmp_path):
    rows, ids, queries = data
    directory = tmp_path / "idx"
    np.save(tmp_path / "rows.npy", rows[:1200])
    np.save(tmp_path / "ids.npy", ids[:1200])
    # Sealing in the adding thread makes the crash point deterministic: the first 1000 rows
    # are in, the seal of their shard is written, the last 200 never arrive.
    child = (f"import numpy as np, orve\n"
             f"s = orve.ShardedIndex({str(directory)!r}, {SHARD_ROWS}, hivf=(4, 4), "
             f"background_seal=False)\n"
             f"s.add(np.load({str(tmp_path / 'rows.npy')!r}), "
             f"np.load({str(tmp_path / 'ids.npy')!r}))\n"
             f"s.close()\n")
    env = dict(os.environ, ORVE_SHARDED_CRASH_AT="seal-written")
    proc = subprocess.run([sys.executable, "-c", child], env=env, capture_output=True)
    assert proc.returncode == 86, proc.stderr.decode()
    assert (directory / "shard-000001" / "index.ivfp").exists()    # written, not switched
    manifest = json.loads((directory / "manifest.json").read_text())
    assert [e["state"] for e in manifest["shards"]] == ["open"]
    want = reference(rows[:1000], ids[:1000], queries, 10)
    with orve.ShardedIndex(directory) as s:
        assert_same(s.search_batch(queries, 10, path="brute"), want)
        s.wait_sealed()                            # the full shard is sealed again
        assert s.shards[0].state == "sealed"
    manifest = json.loads((directory / "manifest.json").read_text())
    assert [e["state"] for e in manifest["shards"]] == ["sealed"]


def tool_query(tool, directory, queries_file, k, path, *more):
    """orve query --dir in CSV, read back as (ids, scores) arrays (nq, k)."""
    out = subprocess.run([tool, "query", "--dir", str(directory), "--queries", str(queries_file),
                          "-k", str(k), "--path", path, "--nprobe-l1", "3", "--nprobe-l2", "4",
                          "--format", "csv", "--quiet", *more], capture_output=True, text=True)
    assert out.returncode == 0, out.stderr
    table = np.array([line.split(",") for line in out.stdout.split()[1:]])
    return (table[:, 2].astype(np.int64).reshape(-1, k),
            table[:, 3].astype(np.float32).reshape(-1, k))


def test_tool_and_package_read_each_others_directories(data, sharded_dir, tmp_path):
    tool = os.environ.get("ORVE_TOOL") or os.path.join(
        os.path.dirname(orve.__file__), "..", "..", "tools", "orve", "orve")
    if not os.path.exists(tool):
        pytest.skip("the orve tool is not built beside the package")
    rows, ids, queries = data
    for name, array in (("v", rows), ("ids", ids.astype(np.int64)), ("q", queries)):
        np.save(tmp_path / f"{name}.npy", array)
    directory = tmp_path / "built"
    subprocess.run([tool, "build", "--vectors", str(tmp_path / "v.npy"), "--ids",
                    str(tmp_path / "ids.npy"), "--shard-rows", str(SHARD_ROWS), "--dir",
                    str(directory), "--quiet"], check=True)
    tool_says = {p: tool_query(tool, directory, tmp_path / "q.npy", 10, p)
                 for p in ("brute", "paged")}
    shown = json.loads(subprocess.run([tool, "inspect", "--format", "json", str(directory)],
                                      capture_output=True, text=True, check=True).stdout)
    assert [s["rows"] for s in shown["shards"]] == [1000, 1000, 600] and shown["rows"] == 2600
    assert shown["file_bytes"] == sum(f.stat().st_size for f in directory.glob("shard-*/*"))
    # The library holds a sidecar for one object at a time: each side queries while the other
    # has the directory closed.
    with orve.ShardedIndex(directory) as s:
        assert [sh.state for sh in s.shards] == ["sealed", "sealed", "open"]
        want = {p: s.search_batch(queries, 10, path=p, nprobe_l1=3, nprobe_l2=4)
                for p in ("brute", "paged")}
        s.delete(np.unique(s.search_batch(queries, 3, path="brute")[0]))  # tombstones
        want["deleted"] = s.search_batch(queries, 10, path="brute")
    assert_same(want["brute"], reference(rows, ids, queries, 10))
    assert_same(tool_says["brute"], want["brute"])
    # The package's own directory (an IVF in the manifest, an open tail, tombstones that hit
    # every index path's best rows) read by the tool on every path.
    paths = ("brute", "ivf", "hivf", "paged")
    with orve.ShardedIndex(sharded_dir) as s:
        s.delete(np.unique([s.search_batch(queries, 2, path=p)[0] for p in paths]))
        own = {p: s.search_batch(queries, 10, path=p, nprobe_l1=3, nprobe_l2=4) for p in paths}
    for p in paths:
        assert_same(tool_query(tool, sharded_dir, tmp_path / "q.npy", 10, p), own[p])
    assert_same(tool_says["paged"], want["paged"])
    assert_same(tool_query(tool, directory, tmp_path / "q.npy", 10, "brute"), want["deleted"])
    # Shards sealed without an IVF get one trained by the tool; probing all of it is exact.
    assert_same(tool_query(tool, directory, tmp_path / "q.npy", 10, "ivf", "--nprobe", "999"),
                want["deleted"])


def test_dask_cluster_answers_like_the_local_index(data, sharded_dir):
    distributed = pytest.importorskip("distributed")
    import orve.distributed
    _, ids, queries = data
    with orve.ShardedIndex(sharded_dir) as s:
        s.delete(ids[[3, 1200, 2400]])
        local = {p: s.search_batch(queries, 10, path=p) for p in ("brute", "ivf", "paged")}
    with distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client, \
            orve.distributed.serve(client, sharded_dir) as served:
        assert len({w for _, w in served.placement}) == 2
        for path, want in local.items():
            assert_same(served.search_batch(queries, 10, path=path), want)
        with orve.ShardedIndex(sharded_dir) as s:     # a delete made while serving
            s.delete(local["brute"][0][:, 0])
            want = s.search_batch(queries, 10, path="brute")
        assert_same(served.search_batch(queries, 10, path="brute"), want)
        # A worker that cannot read a shard refuses rather than serve without its rows.
        (sharded_dir / "shard-000002" / "rows.vec").rename(sharded_dir / "moved.vec")
        with pytest.raises(orve.Error, match="missing"):
            orve.distributed.serve(client, sharded_dir)
