"""The files an Index attaches, looked at from Python before and after the library is asked:
the sidecar's header and row identifiers, the paged file's header and id map, and the
operating system's reason when a write fails. Both formats are little-endian; every size read
from a file is checked against the file's length before it is used, since a file is untrusted
input."""

from __future__ import annotations

import errno
import fcntl
import os
import re
import resource
import stat
import struct
import tempfile

import numpy as np

from . import _core
from ._errors import Error

# Sidecar: a 32-byte header ("ORVEVECA", version 1, dimension 512, row size 2056), then rows
# of (u32 id, u8 live, 3 reserved bytes, 512 float32).
SIDECAR_MAGIC = b"ORVEVECA"
SIDECAR_HEADER_BYTES = 32
SIDECAR_ROW_BYTES = 2056
_SIDECAR_ROW = np.dtype([("id", "<u4"), ("live", "u1"), ("reserved", "V3"), ("values", "V2048")])
assert _SIDECAR_ROW.itemsize == SIDECAR_ROW_BYTES

# Paged file: a 72-byte header (0x00 "ORVEVFP", version, dim, b1, b2, n_rows), centroid
# sections whose offsets follow from b1 and b2, a 24-byte directory entry per leaf slot, then
# each leaf's codes and metadata (scales, norms, row positions and, from version 2, node ids).
PAGED_MAGIC = b"\x00ORVEVFP"
_PAGED_HEADER_BYTES = 72
_PAGED_DIR = np.dtype([("codes", "<u8"), ("meta", "<u8"), ("count", "<u4"), ("reserved", "<u4")])

_MAX_ROWS = int(_core.MAX_CAPACITY)


def _align(x, a):
    return (x + a - 1) // a * a


def effective_capacity(capacity):
    """The capacity create will give: the caller's, else ORVE_VECTOR_CAPACITY read the way the
    library reads it (a leading decimal number, wrapped to 32 bits; out of range means the
    maximum)."""
    if capacity is not None:
        return capacity
    text = os.environ.get("ORVE_VECTOR_CAPACITY")
    if text is None:
        return _MAX_ROWS
    m = re.match(r"\s*([+-]?\d+)", text)
    v = int(m.group(1)) if m else 0
    v = max(min(v, 2**63 - 1), -(2**63)) % 2**32
    return v if 1 <= v <= _MAX_ROWS else _MAX_ROWS


def existing_regular(path, what):
    """os.stat of path when it exists and is a regular file; None when it does not exist."""
    try:
        st = os.stat(path)
    except FileNotFoundError:
        return None
    except OSError as e:
        raise Error(f"{what} '{path}': {e.strerror}") from None
    if not stat.S_ISREG(st.st_mode):
        raise Error(f"{what} '{path}' exists and is not a regular file; refusing to use it")
    return st


def check_directory(path, what):
    """The directory that will hold path: it must exist and be writable."""
    parent = os.path.dirname(path) or "."
    if not os.path.isdir(parent):
        raise Error(f"{what} '{path}': directory '{parent}' does not exist")
    if not os.access(parent, os.W_OK | os.X_OK):
        try:
            read_only = os.statvfs(parent).f_flag & os.ST_RDONLY
        except OSError:
            read_only = False
        why = "is on a read-only file system" if read_only else "is not writable"
        raise Error(f"{what} '{path}': directory '{parent}' {why}")
    return parent


def space_cause(directory, need_bytes, file_size=0, needs="needs"):
    """Why `need_bytes` more bytes cannot be written to a file of `file_size` bytes in
    `directory`, as far as the process's file-size limit and the file system's free space
    tell; None when both leave room. `needs` words the figure ("needs", "may need")."""
    soft, _ = resource.getrlimit(resource.RLIMIT_FSIZE)
    if soft != resource.RLIM_INFINITY and file_size + need_bytes > soft:
        return (f"the process's file-size limit (RLIMIT_FSIZE) is {soft} bytes, and the file "
                f"{needs} {file_size + need_bytes}")
    try:
        st = os.statvfs(directory)
    except OSError as e:
        return f"'{directory}': {e.strerror}"
    free = st.f_bavail * st.f_frsize
    if free < need_bytes:
        return f"the file system is full: {free} bytes free, and the file {needs} {need_bytes}"
    return None


def write_cause(directory, need_bytes, file_size=0, needs="needs"):
    """space_cause, then a test write of one page in `directory` (removed again): the OS's
    own error text, or None when nothing shows a cause."""
    cause = space_cause(directory, need_bytes, file_size, needs)
    if cause:
        return cause
    try:
        fd, tmp = tempfile.mkstemp(dir=directory, prefix=".orve-probe-")
    except OSError as e:
        return f"creating a file in '{directory}' fails: {e.strerror}"
    try:
        os.write(fd, bytes(4096))
        os.fsync(fd)
    except OSError as e:
        return f"a test write in '{directory}' fails: {e.strerror}"
    finally:
        os.close(fd)
        os.unlink(tmp)
    return None


def lock_holder_cause(path):
    """Whether another open file holds the exclusive lock the library keeps on an attached
    sidecar: a message when it does, else None. The probe takes the lock for an instant on a
    descriptor of its own and lets it go at once."""
    try:
        fd = os.open(path, os.O_RDONLY | os.O_NONBLOCK)
    except OSError:
        return None
    try:
        fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError as e:
        if e.errno in (errno.EWOULDBLOCK, errno.EAGAIN):
            return f"sidecar '{path}' is in use by another index or process"
        return None
    else:
        fcntl.flock(fd, fcntl.LOCK_UN)
        return None
    finally:
        os.close(fd)


# -- sidecar -----------------------------------------------------------------------------
def sidecar_header_ok(head):
    return (len(head) == SIDECAR_HEADER_BYTES and head[:8] == SIDECAR_MAGIC
            and struct.unpack_from("<3I", head, 8) == (1, 512, SIDECAR_ROW_BYTES))


def sidecar_whole_rows(size):
    return max(0, size - SIDECAR_HEADER_BYTES) // SIDECAR_ROW_BYTES


def sidecar_vector(fd, size, node_id):
    """The float32[512] values of the last live row with `node_id` in the first `size` bytes
    of the open sidecar `fd`, or None."""
    rows = sidecar_whole_rows(size)
    if rows == 0:
        return None
    with open(fd, "rb", closefd=False) as f:
        mm = np.memmap(f, dtype=_SIDECAR_ROW, mode="r", offset=SIDECAR_HEADER_BYTES,
                       shape=(rows,))
        hit = np.flatnonzero((mm["id"] == node_id) & (mm["live"] != 0))
        if not len(hit):
            return None
        return np.frombuffer(mm["values"][hit[-1]].tobytes(), dtype="<f4").copy()


def sidecar_ids(fd, size):
    """The identifiers of the rows a replay ingests (live byte and id nonzero), in file order,
    read from the whole rows of the first `size` bytes of the open file `fd`."""
    rows = sidecar_whole_rows(size)
    if rows == 0:
        return np.empty(0, np.uint32)
    with os.fdopen(os.dup(fd), "rb") as f:
        mm = np.memmap(f, dtype=_SIDECAR_ROW, mode="r", offset=SIDECAR_HEADER_BYTES,
                       shape=(rows,))
    keep = (mm["live"] != 0) & (mm["id"] != 0)
    ids = np.ascontiguousarray(mm["id"][keep], dtype=np.uint32)
    del mm
    return ids


def check_sidecar(path, overwrite, capacity):
    """Refuses, before the library touches it, a sidecar path that the library would destroy
    or could not use: an existing file that is not a sidecar (it would be truncated), anything
    that is not a regular file, a file or directory the process cannot write, and a file with
    more rows than the index can hold."""
    st = existing_regular(path, "sidecar")
    if st is None:
        check_directory(path, "sidecar")
        return
    try:
        fd = os.open(path, os.O_RDWR)
    except OSError as e:
        raise Error(f"sidecar '{path}' cannot be opened for reading and writing: "
                    f"{e.strerror}") from None
    try:
        size = os.fstat(fd).st_size
        if size == 0:
            return
        head = os.pread(fd, SIDECAR_HEADER_BYTES, 0)
        if not sidecar_header_ok(head):
            if overwrite:
                return
            raise Error(f"'{path}' is not a sidecar file (its first {SIDECAR_HEADER_BYTES} bytes "
                        f"are not a sidecar header), and attaching it would empty it; pass "
                        f"overwrite=True to replace it with an empty sidecar")
        if sidecar_whole_rows(size) > capacity:
            live = len(sidecar_ids(fd, size))
            if live > capacity:
                raise Error(f"sidecar '{path}' holds {live} rows, more than this index's "
                            f"capacity of {capacity}")
    finally:
        os.close(fd)


# -- paged file --------------------------------------------------------------------------
def paged_layout(b1, b2):
    """(leaf directory offset, data start) of a paged file with b1 x b2 leaf slots."""
    slots = b1 * b2
    lc = _align(_PAGED_HEADER_BYTES + 520 * b1, 64)
    ld = lc + 512 * slots + 16 * slots
    return ld, _align(ld + 24 * slots, 4096)


def paged_size_bounds(b1, b2, rows):
    """Lowest and highest size of the paged file of an H-IVF of b1 x b2 over `rows` rows
    (each leaf adds up to 63 bytes of padding)."""
    low = paged_layout(b1, b2)[1] + 528 * rows
    return low, low + 64 * b1 * b2


def paged_rows(path, max_branching):
    """(b1, b2, n_rows, row positions, node ids or None for a version-1 file) of the paged
    file at path, every section checked to lie within the file."""
    if existing_regular(path, "paged file") is None:
        raise Error(f"paged file '{path}' does not exist")
    try:
        f = open(path, "rb")
    except OSError as e:
        raise Error(f"paged file '{path}': {e.strerror}") from None
    with f:
        size = os.fstat(f.fileno()).st_size

        def bad(why):
            return Error(f"'{path}' is not a usable paged file: {why}")

        if size < _PAGED_HEADER_BYTES:
            raise bad(f"{size} bytes, shorter than its {_PAGED_HEADER_BYTES}-byte header")
        mm = np.memmap(f, dtype=np.uint8, mode="r", shape=(size,))
    head = bytes(mm[:_PAGED_HEADER_BYTES])
    if head[:8] != PAGED_MAGIC:
        raise bad("wrong magic bytes")
    version, dim, b1, b2, n_rows = struct.unpack_from("<5I", head, 8)
    if version not in (1, 2) or dim != 512:
        raise bad(f"version {version}, dimension {dim}")
    if not (1 <= b1 <= max_branching and 1 <= b2 <= max_branching):
        raise bad(f"b1={b1}, b2={b2}: the paged search handles 1 to {max_branching} per level")
    ld, data_start = paged_layout(b1, b2)
    if data_start > size:
        raise bad(f"its sections end at byte {data_start}, past its {size} bytes")
    slots = b1 * b2
    leaves = np.frombuffer(mm, dtype=_PAGED_DIR, count=slots, offset=ld)
    counts = leaves["count"].astype(np.int64)
    if int(counts.sum()) != n_rows:
        raise bad(f"its leaves hold {int(counts.sum())} rows, its header says {n_rows}")
    per_row = 16 if version == 2 else 12
    row_parts, id_parts = [], []
    for s in np.nonzero(counts)[0]:
        m, codes, meta = int(counts[s]), int(leaves["codes"][s]), int(leaves["meta"][s])
        if codes < data_start or meta != codes + 512 * m or meta + per_row * m > size:
            raise bad(f"leaf slot {s} lies outside the file")
        row_parts.append(np.frombuffer(mm, "<u4", count=m, offset=meta + 8 * m))
        if version == 2:
            id_parts.append(np.frombuffer(mm, "<u4", count=m, offset=meta + 12 * m))
    empty = np.empty(0, np.uint32)
    row_ids = np.concatenate(row_parts).astype(np.uint32) if row_parts else empty
    node_ids = None
    if version == 2:
        node_ids = np.concatenate(id_parts).astype(np.uint32) if id_parts else empty
    del leaves, row_parts, id_parts, mm
    return b1, b2, n_rows, row_ids, node_ids


def check_paged_rows(path, n_rows, row_ids, node_ids, own_ids):
    """Refuses a paged file whose rows are not this index's: more rows than the index holds,
    row positions that are not 0..n_rows-1 once each (an H-IVF covers every row it was built
    over), or node ids that differ from the index's ids at those positions."""
    n = len(own_ids)
    if n_rows > n:
        raise Error(f"'{path}' indexes {n_rows} rows, but this index holds {n}: it was written "
                    f"for other data")
    if n_rows and (int(row_ids.max()) >= n_rows
                   or int(np.bincount(row_ids, minlength=n_rows).max()) != 1):
        raise Error(f"'{path}' does not index rows 0 to {n_rows - 1} once each: it was not "
                    f"written from an index's rows")
    if node_ids is not None and n_rows:
        want = own_ids[row_ids]
        differ = np.nonzero(want != node_ids)[0]
        if len(differ):
            k = differ[0]
            raise Error(f"'{path}' was written for other data: {len(differ)} of its {n_rows} "
                        f"rows carry another id than this index's row (row {int(row_ids[k])}: "
                        f"file id {int(node_ids[k])}, index id {int(want[k])})")
