"""Serving a sharded directory (orve.ShardedIndex) from a Dask cluster.

    from distributed import Client, LocalCluster
    with LocalCluster(n_workers=2, threads_per_worker=1) as cluster, Client(cluster) as client:
        with orve.distributed.serve(client, "graph.idx") as index:
            ids, scores = index.search_batch(queries, 10, path="paged")

The directory must be on a path that every worker can read under the same name (a shared
file system, or one machine). Workers only read it: each shard is opened once, on the one
worker it is pinned to, from its sidecar and paged file, and stays open in that worker
process. A query batch is scattered to the workers, each shard returns its partial top-k
lists, and they are merged here by the same function as the local index uses, so the answers
are those of ShardedIndex on the same directory.

The shard list is the manifest as it stood when serve() was called: rows or shards added
later are served after serve() is called again. Deletes are seen at once, since every batch
re-reads the tail of each shard's tombstone file.
"""

from __future__ import annotations

import os
import threading
import uuid

from distributed import get_worker

from .sharded import SearchFront, Shard, read_manifest

__all__ = ["serve", "ServedIndex"]

_LOCK = threading.Lock()


def _worker_shards():
    """Shards open in this worker process: {(serve token, shard name): Shard}. Each serve()
    call has its own token, so serving a directory again reads its files again instead of
    reusing a tail opened when it had fewer rows."""
    worker = get_worker()
    with _LOCK:
        if not hasattr(worker, "_orve_shards"):
            worker._orve_shards = {}
        return worker._orve_shards


def _shard(token, directory, entry, settings):
    shards = _worker_shards()
    with _LOCK:
        shard = shards.get((token, entry["name"]))
        if shard is None:
            shard = Shard(directory, entry, settings, writable=False)
            shards[(token, entry["name"])] = shard
    return shard


def _open(token, directory, entry, settings):
    _shard(token, directory, entry, settings)
    return entry["name"]


def _topk(token, directory, entry, settings, queries, k, path, probes):
    shard = _shard(token, directory, entry, settings)
    shard.refresh_tombstones()
    return shard.topk(queries, k, path, probes)


def _close(token):
    shards = _worker_shards()
    with _LOCK:
        for key in [key for key in shards if key[0] == token]:
            shards.pop(key).close()


class ServedIndex(SearchFront):
    """A sharded directory opened on the workers of a Dask client; made by serve()."""

    def __init__(self, client, directory):
        self._client = client
        self._token = uuid.uuid4().hex
        self.directory = os.path.abspath(os.fsdecode(os.fspath(directory)))
        manifest = read_manifest(self.directory)
        self.settings = manifest["settings"]
        workers = sorted(client.scheduler_info()["workers"])
        if not workers:
            raise RuntimeError("serve: the Dask cluster has no workers")
        # Round robin in manifest order: consecutive shards (similar sizes) spread evenly.
        self.placement = [(entry, workers[i % len(workers)])
                          for i, entry in enumerate(manifest["shards"])]
        try:
            client.gather([self._submit(_open, entry, worker)
                           for entry, worker in self.placement])
        except BaseException:
            self.close()        # the shards that did open
            raise

    def _submit(self, fn, entry, worker, *args):
        return self._client.submit(fn, self._token, self.directory, entry, self.settings,
                                   *args, workers=[worker], allow_other_workers=False,
                                   pure=False)

    def _partials(self, queries, k, path, probes):
        if not self.placement:
            return []
        workers = sorted({w for _, w in self.placement})
        # A fresh key per batch: with content hashing, a batch equal to the previous one gets
        # the same key while that key is being released, and its tasks are cancelled.
        data = self._client.scatter(queries, workers=workers, broadcast=True, hash=False)
        return self._client.gather([self._submit(_topk, entry, worker, data, k, path, probes)
                                    for entry, worker in self.placement])

    def close(self):
        """Closes the shards on their workers."""
        workers = {w for _, w in self.placement}
        self._client.gather([self._client.submit(_close, self._token, workers=[w],
                                                 allow_other_workers=False, pure=False)
                             for w in workers])
        self.placement = []

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False


def serve(client, directory):
    """Opens every shard of ``directory`` once on a worker of ``client`` (a
    distributed.Client) and returns a ServedIndex with search / search_batch as on
    ShardedIndex. The directory must be readable at the same path on every worker."""
    return ServedIndex(client, directory)
