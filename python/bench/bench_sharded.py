"""Sharded index figures: queries/s and recall@10 per path (brute, ivf, paged) for the local
ShardedIndex and for Dask with 1 and 2 workers, the seal time of one shard, and search
latency while a shard is being sealed. Prints figures; asserts nothing.

    PYTHONPATH=BUILD/python /usr/bin/python3 python/bench/bench_sharded.py \
        [--rows 30000] [--shards 3] [--queries 200] [--workers 1,2]

Recall is against brute force over all shards (exact). Rows and queries are drawn from one
Gaussian mixture (a centre per 1000 rows, N(0, I) centres and noise), so that the index paths
have neighbourhoods to find.
"""

import argparse
import tempfile
import time

import numpy as np

import orve


def clustered(rng, centres, n):
    """Rows of a Gaussian mixture: a centre picked at random plus N(0, I) noise."""
    pick = rng.integers(0, len(centres), n)
    return (centres[pick] + rng.standard_normal((n, orve.DIM))).astype(np.float32)


def recall(got, truth):
    return np.mean([len(set(g[g >= 0]) & set(t[t >= 0])) / max(1, (t >= 0).sum())
                    for g, t in zip(got, truth)])


def measure(index, queries, k, probes, truth, repeats=3):
    """(queries/s, recall@k) per path, the batch searched `repeats` times."""
    out = {}
    for path in ("brute", "ivf", "paged"):
        ids = index.search_batch(queries, k, path=path, **probes)[0]     # warm-up
        t0 = time.perf_counter()
        for _ in range(repeats):
            index.search_batch(queries, k, path=path, **probes)
        out[path] = (repeats * len(queries) / (time.perf_counter() - t0), recall(ids, truth))
    return out


def latencies_while(index, queries, busy, at_least=20):
    """Single-query latencies (s) of path='auto' searches, looping while busy() is true."""
    lat = []
    i = 0
    while busy() or len(lat) < at_least:
        t0 = time.perf_counter()
        index.search(queries[i % len(queries)], 10)
        lat.append(time.perf_counter() - t0)
        i += 1
    return np.array(lat)


def build(directory, rows, shard_rows, nlist, queries):
    """Fills the shards; times the seal of the first one and searches meanwhile."""
    s = orve.ShardedIndex(directory, shard_rows, nlist=nlist)
    s.add(rows[:shard_rows])
    sealing = s._seals[0]
    t0 = time.perf_counter()
    during = latencies_while(s, queries, lambda: not sealing.done())
    s.wait_sealed()
    seal_s = time.perf_counter() - t0
    if len(rows) > shard_rows:
        s.add(rows[shard_rows:])
        s.wait_sealed()
    idle = latencies_while(s, queries, lambda: False, at_least=500)
    return s, seal_s, during, idle


def resident_bytes():
    with open("/proc/self/status") as f:
        return next(int(l.split()[1]) * 1024 for l in f if l.startswith("VmRSS:"))


def reopened(directory, queries, k):
    """Resident bytes per row of the directory reopened from its files, after one batch on
    each path has touched the pages a search needs."""
    before = resident_bytes()
    s = orve.ShardedIndex(directory)
    for path in ("brute", "ivf", "paged"):
        s.search_batch(queries, k, path=path)
    return s, (resident_bytes() - before) / len(s)


def dask_figures(directory, workers, queries, k, probes, truth):
    import distributed
    import orve.distributed
    with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client, \
            orve.distributed.serve(client, directory) as served:
        return measure(served, queries, k, probes, truth)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--rows", type=int, default=30_000)
    ap.add_argument("--shards", type=int, default=3)
    ap.add_argument("--queries", type=int, default=200)
    ap.add_argument("--k", type=int, default=10)
    ap.add_argument("--nlist", type=int, default=0, help="0: about sqrt(rows per shard)")
    ap.add_argument("--nprobe", type=int, default=0, help="0: nlist / 16")
    ap.add_argument("--workers", default="1,2", help="Dask worker counts; empty: no Dask")
    ap.add_argument("--dir", default=None, help="directory to build in (default: a temp one)")
    a = ap.parse_args()

    shard_rows = -(-a.rows // a.shards)
    nlist = a.nlist or max(1, int(shard_rows ** 0.5))
    probes = {"nprobe": a.nprobe or max(1, nlist // 16)}
    rng = np.random.default_rng(1)
    centres = rng.standard_normal((max(16, a.rows // 1000), orve.DIM)).astype(np.float32)
    rows = clustered(rng, centres, a.rows)
    queries = clustered(rng, centres, a.queries)

    with tempfile.TemporaryDirectory() as tmp:
        directory = a.dir or tmp
        t0 = time.perf_counter()
        s, seal_s, during, idle = build(directory, rows, shard_rows, nlist, queries)
        print(f"rows {a.rows} in {len(s.shards)} shards of {shard_rows}; nlist {nlist}, "
              f"nprobe {probes['nprobe']}; built in {time.perf_counter() - t0:.1f} s")
        print(f"seal of one {shard_rows}-row shard: {seal_s:.2f} s")
        print(f"search p99 (path=auto, 1 query): {1e3 * np.percentile(during, 99):.2f} ms "
              f"while sealing ({len(during)} searches), "
              f"{1e3 * np.percentile(idle, 99):.2f} ms idle")
        s.close()
        s, per_row = reopened(directory, queries, a.k)
        print(f"reopened: {per_row:.0f} resident bytes per row (flat int8 rows, node table, "
              f"IVF, paged pages touched)")
        with s:
            truth = s.search_batch(queries, a.k, path="brute")[0]
            figures = {"local": measure(s, queries, a.k, probes, truth)}
        for w in [int(x) for x in a.workers.split(",") if x]:
            figures[f"dask x{w}"] = dask_figures(directory, w, queries, a.k, probes, truth)
        print(f"{'':10s}" + "".join(f"{p:>22s}" for p in ("brute", "ivf", "paged")))
        for name, per_path in figures.items():
            cells = "".join(f"{qps:>11.0f} q/s r={r:.3f}" for qps, r in per_path.values())
            print(f"{name:10s}{cells}")


if __name__ == "__main__":
    main()
