"""Sharded index figures: queries/s and recall@10 per path (brute, ivf, paged) for the local
ShardedIndex and for Dask with 1 and 2 workers, the seal time of one shard, and search
latency while a tail shard is being sealed. Prints figures; asserts nothing.

    PYTHONPATH=BUILD/python /usr/bin/python3 python/bench/bench_sharded.py \
        [--rows 30000] [--shard-rows 10000] [--queries 200] [--workers 1,2]

The 3M-row figures: --rows 3000000 --shard-rows 1000000 (about 6.2 GB of sidecars and 1.5 GB
of paged files under $TMPDIR or --dir; the rows are generated and added in chunks, so the
process never holds them all as floats).

Recall is against brute force over all shards (exact). Rows and queries are drawn from one
Gaussian mixture (a centre per 1000 rows, N(0, I) centres and noise), so that the index paths
have neighbourhoods to find.
"""

import argparse
import os
import resource
import tempfile
import time

import numpy as np

import orve

CHUNK = 100_000     # rows generated and added at a time (200 MB of floats)


def clustered(rng, centres, n):
    """Rows of a Gaussian mixture: a centre picked at random plus N(0, I) noise."""
    pick = rng.integers(0, len(centres), n)
    return (centres[pick] + rng.standard_normal((n, orve.DIM))).astype(np.float32)


def recall(got, truth):
    return np.mean([len(set(g[g >= 0]) & set(t[t >= 0])) / max(1, (t >= 0).sum())
                    for g, t in zip(got, truth)])


def measure(index, queries, k, probes, truth, repeats):
    """(queries/s, recall@k) per path: a warm-up batch of 10, then the whole batch `repeats`
    times."""
    out = {}
    for path in ("brute", "ivf", "paged"):
        index.search_batch(queries[:10], k, path=path, **probes)
        t0 = time.perf_counter()
        for _ in range(repeats):
            ids = index.search_batch(queries, k, path=path, **probes)[0]
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


class Rows:
    """The data set, generated in chunks in one fixed order."""

    def __init__(self, rng, centres, total):
        self.rng, self.centres, self.total, self.done = rng, centres, total, 0

    def add_until(self, index, target):
        while self.done < min(target, self.total):
            n = min(CHUNK, target - self.done, self.total - self.done)
            index.add(clustered(self.rng, self.centres, n))
            self.done += n


def build(directory, data, shard_rows, nlist, queries):
    """Fills the shards. The first shard's seal is timed alone; the last full shard's seal is
    timed again while single queries run, whose latencies are kept."""
    s = orve.ShardedIndex(directory, shard_rows, nlist=nlist)
    t0 = time.perf_counter()
    data.add_until(s, shard_rows)
    t1 = time.perf_counter()
    s.wait_sealed()
    seal = {"alone": time.perf_counter() - t1, "add": t1 - t0}
    full = data.total // shard_rows * shard_rows
    during = None
    if full > shard_rows:
        data.add_until(s, full - shard_rows)
        s.wait_sealed()
        data.add_until(s, full)
        sealing = list(s._seals)
        t1 = time.perf_counter()
        during = latencies_while(s, queries, lambda: not all(f.done() for f in sealing))
        s.wait_sealed()
        seal["searched"] = time.perf_counter() - t1
    data.add_until(s, data.total)       # an open tail, when rows do not fill the last shard
    idle = latencies_while(s, queries, lambda: False, at_least=500)
    return s, seal, during, idle


def resident_bytes():
    with open("/proc/self/status") as f:
        return next(int(l.split()[1]) * 1024 for l in f if l.startswith("VmRSS:"))


def peak_rss():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def dask_figures(directory, workers, queries, k, probes, truth, repeats):
    """Figures per path on a local Dask cluster, the time to open the shards on the workers
    and the resident bytes of each worker process afterwards."""
    import distributed
    import orve.distributed
    with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, \
            distributed.Client(cluster) as client:
        before = sum(client.run(resident_bytes).values())
        t0 = time.perf_counter()
        with orve.distributed.serve(client, directory) as served:
            opened = time.perf_counter() - t0
            figures = measure(served, queries, k, probes, truth, repeats)
            rss = sorted(client.run(resident_bytes).values())
    return figures, opened, rss, sum(rss) - before


def gib(n):
    return f"{n / 2**30:.2f} GiB"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--rows", type=int, default=30_000)
    ap.add_argument("--shard-rows", type=int, default=10_000)
    ap.add_argument("--queries", type=int, default=200)
    ap.add_argument("--repeats", type=int, default=1, help="timed passes over the batch")
    ap.add_argument("--k", type=int, default=10)
    ap.add_argument("--nlist", type=int, default=0,
                    help="0: about sqrt(rows per shard), at most 256")
    ap.add_argument("--nprobe", type=int, default=0, help="0: nlist / 16")
    ap.add_argument("--workers", default="1,2", help="Dask worker counts; empty: no Dask")
    ap.add_argument("--dir", default=None, help="where the temporary shard directory is made (default: $TMPDIR)")
    a = ap.parse_args()

    start = time.perf_counter()
    shard_rows = a.shard_rows
    # Every open of a sealed shard (each Dask worker's too) trains its IVF again, at a cost
    # growing with rows x nlist (48 CPU seconds for 1M rows at nlist 256 here), so
    # sqrt(1M) = 1000 would take minutes per shard and open. Capped at 256 the 3M-row run
    # stays under 20 minutes; the default nprobe scans a sixteenth of a shard whatever nlist
    # is, so queries/s hardly depend on the cap.
    nlist = a.nlist or max(1, min(256, int(shard_rows ** 0.5)))
    probes = {"nprobe": a.nprobe or max(1, nlist // 16)}
    rng = np.random.default_rng(1)
    centres = rng.standard_normal((max(16, a.rows // 1000), orve.DIM)).astype(np.float32)
    queries = clustered(rng, centres, a.queries)
    data = Rows(rng, centres, a.rows)

    with tempfile.TemporaryDirectory(dir=a.dir) as directory:
        t0 = time.perf_counter()
        s, seal, during, idle = build(directory, data, shard_rows, nlist, queries)
        print(f"rows {a.rows} in {len(s.shards)} shards of at most {shard_rows}; nlist {nlist}, "
              f"nprobe {probes['nprobe']}, k {a.k}, {a.queries} queries; built in "
              f"{time.perf_counter() - t0:.1f} s (first shard added in {seal['add']:.1f} s)")
        print(f"seal of one {shard_rows}-row shard: {seal['alone']:.1f} s alone", end="")
        if during is None:
            print(" (a single shard: no seal under searches)")
        else:
            print(f", {seal['searched']:.1f} s while single queries ran")
            print(f"search latency (path=auto, 1 query) while the last shard was sealed: "
                  f"p50 {1e3 * np.percentile(during, 50):.2f} ms, "
                  f"p99 {1e3 * np.percentile(during, 99):.2f} ms ({len(during)} searches)")
        print(f"search latency idle, all shards sealed: p50 {1e3 * np.percentile(idle, 50):.2f}"
              f" ms, p99 {1e3 * np.percentile(idle, 99):.2f} ms")
        on_disk = sum(os.path.getsize(os.path.join(d, f))
                      for d, _, files in os.walk(directory) for f in files)
        print(f"on disk {gib(on_disk)}; peak resident of this process {gib(peak_rss())}")
        # Measured on the index as built: reopening would train every shard's IVF once more,
        # and the Dask runs below already show the cost of opening the directory.
        with s:
            truth = s.search_batch(queries, a.k, path="brute")[0]
            figures = {"local": measure(s, queries, a.k, probes, truth, a.repeats)}
        for w in [int(x) for x in a.workers.split(",") if x]:
            figures[f"dask x{w}"], opened, rss, grown = dask_figures(
                directory, w, queries, a.k, probes, truth, a.repeats)
            print(f"dask x{w}: shards opened on the workers in {opened:.1f} s; worker "
                  f"resident {', '.join(gib(r) for r in rss)}, {grown / a.rows:.0f} bytes per "
                  f"row held by the shards (int8 rows, node table, IVF, paged pages touched)")
        print(f"\nqueries/s and recall@{a.k} ({a.queries}-query batches; figures move with "
              f"whatever else the machine runs)")
        print(f"{'':10s}" + "".join(f"{p:>22s}" for p in ("brute", "ivf", "paged")))
        for name, per_path in figures.items():
            cells = "".join(f"{qps:>11.0f} q/s r={r:.3f}" for qps, r in per_path.values())
            print(f"{name:10s}{cells}")
    print(f"\nelapsed {time.perf_counter() - start:.0f} s")


if __name__ == "__main__":
    main()
