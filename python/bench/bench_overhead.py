"""Cost of going through Python: the same searches through orve and through a plain C++ loop
(orve_python_bench_c, built from c_search_loop.cpp beside this script). Prints figures; asserts nothing.

    cmake --build BUILD --target orve_python orve_python_bench_c
    PYTHONPATH=BUILD/python /usr/bin/python3 python/bench/bench_overhead.py BUILD [--rows 100000]
"""

import argparse
import os
import subprocess
import tempfile
import threading
import time

import numpy as np

import orve


def run_c(exe, rows_path, n, q_path, nq, nlist, nprobe, k, repeats):
    out = subprocess.run([exe, rows_path, str(n), q_path, str(nq), str(nlist), str(nprobe),
                          str(k), str(repeats)], check=True, capture_output=True, text=True)
    return {line.split()[0]: float(line.split()[1]) for line in out.stdout.splitlines()
            if len(line.split()) == 2 and line.split()[0].endswith(("us", "qps"))}


def per_query(fn, queries, repeats):
    t0 = time.perf_counter()
    for _ in range(repeats):
        for q in queries:
            fn(q)
    return (time.perf_counter() - t0) / (len(queries) * repeats)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build", help="build tree holding python/ and python/orve_python_bench_c")
    ap.add_argument("--rows", type=int, default=100_000)
    ap.add_argument("--nlist", type=int, default=256)
    ap.add_argument("--nprobe", type=int, default=16)
    ap.add_argument("--queries", type=int, default=1000)
    args = ap.parse_args()
    exe = os.path.join(args.build, "python", "orve_python_bench_c")
    rng = np.random.default_rng(7)
    k = 10

    with tempfile.TemporaryDirectory() as tmp:
        # 1. Fixed cost of one search: 16 rows, brute force.
        small = rng.standard_normal((16, 512)).astype(np.float32)
        sq = rng.standard_normal((200, 512)).astype(np.float32)
        small.tofile(f"{tmp}/small.f32")
        sq.tofile(f"{tmp}/sq.f32")
        c = run_c(exe, f"{tmp}/small.f32", 16, f"{tmp}/sq.f32", 200, 0, 0, k, 100)
        with orve.Index(capacity=16) as ix:
            ix.add(small)
            per_query(lambda q: ix.search(q, k, path="brute"), sq, 5)  # warm up
            py = per_query(lambda q: ix.search(q, k, path="brute"), sq, 100)
        print(f"16-row brute search: python {py * 1e6:.2f} us/query, C {c['single_us']:.2f} "
              f"us/query, overhead {py * 1e6 - c['single_us']:.2f} us")

        # 2. 100k-row IVF: one at a time, batch, two threads.
        rows = rng.standard_normal((args.rows, 512)).astype(np.float32)
        qs = rng.standard_normal((args.queries, 512)).astype(np.float32)
        rows.tofile(f"{tmp}/rows.f32")
        qs.tofile(f"{tmp}/q.f32")
        t0 = time.perf_counter()
        c = run_c(exe, f"{tmp}/rows.f32", args.rows, f"{tmp}/q.f32", args.queries,
                  args.nlist, args.nprobe, k, 3)
        print(f"(C run incl. its own IVF build: {time.perf_counter() - t0:.1f} s)")
        with orve.Index(capacity=args.rows) as ix:
            ix.add(rows)
            t0 = time.perf_counter()
            ix.build_ivf(args.nlist)
            print(f"(python IVF build {args.nlist} lists: {time.perf_counter() - t0:.1f} s)")
            one = lambda q: ix.search(q, k, path="ivf", nprobe=args.nprobe)  # noqa: E731
            per_query(one, qs[:50], 1)
            single = 1.0 / per_query(one, qs, 3)
            t0 = time.perf_counter()
            for _ in range(3):
                ix.search_batch(qs, k, path="ivf", nprobe=args.nprobe)
            batch = 3 * len(qs) / (time.perf_counter() - t0)
            halves = (qs[0::2], qs[1::2])
            t0 = time.perf_counter()
            ts = [threading.Thread(target=per_query, args=(one, h, 3)) for h in halves]
            for t in ts:
                t.start()
            for t in ts:
                t.join()
            two = 3 * len(qs) / (time.perf_counter() - t0)
        print(f"{args.rows}-row IVF (nlist {args.nlist}, nprobe {args.nprobe}, k {k}):")
        print(f"  one at a time: python {single:.0f} q/s, C {c['single_qps']:.0f} q/s")
        print(f"  batch:         python {batch:.0f} q/s, C {c['batch_qps']:.0f} q/s")
        print(f"  two threads:   python {two:.0f} q/s (one thread {single:.0f}), "
              f"C {c['two_threads_qps']:.0f} q/s")


if __name__ == "__main__":
    main()
