// orve._core: the compiled half of the Python package. It speaks only the public C API of
// libsemantic_vector_indexing; record layouts and sizes come from the header, never from here.
//
// Threading: every call that scans, trains, reads or writes a file runs with the GIL released.
// A per-object reader/writer lock keeps close() and the attach/drop calls (which the library
// forbids to overlap with anything else on the same object) apart from searches, builds and
// ingestion, which the library itself lets run side by side.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "semantic_vector_indexing.h"

namespace py = pybind11;

namespace {

// A failure reported by the library: its return code and the call that gave it.
struct library_error : std::runtime_error {
    int code;
    library_error(int c, const std::string& what) : std::runtime_error(what), code(c) {}
};

// A failure found before the library was asked (closed object): no library code.
struct binding_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// orve.Error, fetched once at import. Deliberately never released: it must outlive every
// object that could still raise during interpreter shutdown.
PyObject* g_error_type = nullptr;

// The library reads ORVE_VECTOR_CAPACITY inside create. Serialising set-create-restore here
// keeps two Python threads creating objects of different capacities from seeing each other's
// value.
std::mutex g_env_mutex;

[[noreturn]] void fail(int code, const std::string& call, const std::string& detail = {}) {
    std::string msg = call + " failed (library code " + std::to_string(code) + ")";
    if (!detail.empty()) msg += ": " + detail;
    throw library_error(code, msg);
}

// Expected-shape checks. The Python layer converts once (dtype, contiguity); these guard the
// raw entry points so that nothing the C side reads can be out of bounds.
const float* float_rows(const py::array& a, const char* what, size_t* rows) {
    if (!a.dtype().is(py::dtype::of<float>())) {
        throw py::value_error(std::string(what) + ": expected float32, got " +
                              std::string(py::str(a.dtype())));
    }
    if (!(a.flags() & py::array::c_style)) {
        throw py::value_error(std::string(what) + ": expected a C-contiguous array");
    }
    if (a.ndim() != 2 || a.shape(1) != ORVE512_DIM) {
        throw py::value_error(std::string(what) + ": expected shape (n, 512)");
    }
    if (a.shape(0) < 1) throw py::value_error(std::string(what) + ": expected at least one row");
    *rows = static_cast<size_t>(a.shape(0));
    return static_cast<const float*>(a.data());
}

const float* float_vector(const py::array& a, py::ssize_t n, const char* what) {
    if (!a.dtype().is(py::dtype::of<float>()) || !(a.flags() & py::array::c_style) ||
        a.ndim() != 1 || a.shape(0) != n) {
        throw py::value_error(std::string(what) + ": expected a contiguous float32 array of " +
                              std::to_string(n) + " values");
    }
    return static_cast<const float*>(a.data());
}

const int8_t* int8_vector(const py::array& a, const char* what) {
    if (!a.dtype().is(py::dtype::of<int8_t>()) || !(a.flags() & py::array::c_style) ||
        a.ndim() != 1 || a.shape(0) != ORVE512_DIM) {
        throw py::value_error(std::string(what) +
                              ": expected a contiguous int8 array of 512 codes");
    }
    return static_cast<const int8_t*>(a.data());
}

std::string c_string(const std::string& s, const char* what) {
    if (s.find('\0') != std::string::npos) {
        throw py::value_error(std::string(what) + ": embedded NUL character");
    }
    return s;
}

struct search_options {
    uint32_t k = 10;
    bool use_ivf = false;
    uint32_t nprobe = 0;
    bool use_hivf = false;
    uint32_t nprobe_l1 = 0;
    uint32_t nprobe_l2 = 0;
    bool rerank = false;
    uint32_t rerank_factor = 0;
    float min_similarity = -1.0f;
};

void fill_query(vector_similarity_query& q, const search_options& o) {
    std::memset(&q, 0, sizeof q);
    q.use_orve512 = 1;
    q.max_results = o.k;
    q.min_similarity = o.min_similarity;
    q.use_ivf = o.use_ivf ? 1 : 0;
    q.n_probe = o.nprobe;
    q.use_hivf = o.use_hivf ? 1 : 0;
    q.n_probe_l1 = o.nprobe_l1;
    q.n_probe_l2 = o.nprobe_l2;
    q.rerank = o.rerank ? 1 : 0;
    q.rerank_factor = o.rerank_factor;
}

// Copies count results into row `row` of (ids, scores), padding the rest with -1 / NaN.
void copy_results(const vector_similarity_result* res, uint32_t count, uint32_t k, int64_t* ids,
                  float* scores) {
    for (uint32_t j = 0; j < k; ++j) {
        if (j < count) {
            ids[j] = res[j].node_id;
            scores[j] = res[j].similarity;
        } else {
            ids[j] = -1;
            scores[j] = std::numeric_limits<float>::quiet_NaN();
        }
    }
}

class System {
  public:
    System(std::optional<uint64_t> capacity, std::optional<std::string> sidecar) {
        if (capacity && (*capacity < 1 || *capacity > ORVE_MAX_CAPACITY)) {
            throw py::value_error("capacity: expected 1 to " + std::to_string(ORVE_MAX_CAPACITY) +
                                  " rows, got " + std::to_string(*capacity));
        }
        std::string side = sidecar ? c_string(*sidecar, "sidecar") : std::string();
        // calloc: create wants a zeroed block, and malloc alignment is all it needs.
        sys_ = static_cast<semantic_vector_indexing_system*>(
            std::calloc(1, semantic_vector_indexing_system_sizeof()));
        if (!sys_) throw std::bad_alloc();
        int rc = 0;
        {
            py::gil_scoped_release nogil;
            rc = create_with_capacity(capacity);
            if (rc != 0) release_object();
        }
        if (rc != 0) fail(rc, "semantic_vector_indexing_system_create");
        if (sidecar) {
            // A throwing constructor runs no destructor: release here.
            try {
                open_sidecar(side);
            } catch (...) {
                release_object();
                throw;
            }
        }
    }

    // Replays the file and keeps it open for appending. The cause of a failure is diagnosed by
    // the Python layer, which can look at the file and the file system.
    void open_sidecar(const std::string& path_in) {
        const std::string path = c_string(path_in, "sidecar");
        call_or_raise<exclusive>(
            [&](auto* sys) {
                return semantic_vector_indexing_system_open_sidecar(sys, path.c_str());
            },
            "semantic_vector_indexing_system_open_sidecar", "'" + path + "'");
    }

    ~System() { release_object(); }

    System(const System&) = delete;
    System& operator=(const System&) = delete;

    void close() {
        py::gil_scoped_release nogil;
        std::unique_lock lk(mu_);
        release_object();
    }

    bool closed() {
        std::shared_lock lk(mu_);
        return sys_ == nullptr;
    }

    py::tuple stats() {
        uint32_t nodes = 0, clusters = 0;
        float avg = 0.0f, silhouette = 0.0f;
        uint64_t gen = 0, built = 0;
        call_or_raise<shared>(
            [&](auto* sys) {
                gen = semantic_vector_indexing_system_get_ivf_generation(sys);
                built = semantic_vector_indexing_system_get_ivf_built_generation(sys);
                return semantic_vector_indexing_system_get_stats(sys, &nodes, &clusters, &avg,
                                                                 &silhouette);
            },
            "semantic_vector_indexing_system_get_stats");
        return py::make_tuple(nodes, clusters, avg, silhouette, gen, built);
    }

    uint32_t node_count() {
        uint32_t nodes = 0, clusters = 0;
        float avg = 0.0f, silhouette = 0.0f;
        call_or_raise<shared>(
            [&](auto* sys) {
                return semantic_vector_indexing_system_get_stats(sys, &nodes, &clusters, &avg,
                                                                 &silhouette);
            },
            "semantic_vector_indexing_system_get_stats");
        return nodes;
    }

    // Rows get identifiers 1.. by position. Returns the rows committed.
    int load(const py::array& vectors) {
        size_t n = 0;
        const float* data = float_rows(vectors, "vectors", &n);
        if (n > ORVE_MAX_CAPACITY) throw py::value_error("vectors: more rows than any capacity");
        const int rc = with_object<shared>([&](auto* sys) {
            return semantic_vector_indexing_system_load_vectors_f32(sys, data,
                                                                    static_cast<uint32_t>(n));
        });
        if (rc < 0)
            fail(rc, "semantic_vector_indexing_system_load_vectors_f32",
                 "no row committed (object full, flat store dropped, or out of memory)");
        if (static_cast<size_t>(rc) != n) {
            throw library_error(rc, "semantic_vector_indexing_system_load_vectors_f32 committed " +
                                        std::to_string(rc) + " of " + std::to_string(n) + " rows");
        }
        return rc;
    }

    // One add_embedding per row, looped here rather than in Python.
    int add_with_ids(const py::array& vectors, const py::array& ids) {
        size_t n = 0;
        const float* data = float_rows(vectors, "vectors", &n);
        if (!ids.dtype().is(py::dtype::of<uint32_t>()) || !(ids.flags() & py::array::c_style) ||
            ids.ndim() != 1 || static_cast<size_t>(ids.shape(0)) != n) {
            throw py::value_error("ids: expected a contiguous uint32 array with one id per row");
        }
        const uint32_t* id = static_cast<const uint32_t*>(ids.data());
        size_t done = 0;
        const int rc = with_object<shared>([&](auto* sys) {
            for (; done < n; ++done) {
                const int r = semantic_vector_indexing_system_add_embedding_orve512(
                    sys, id[done], data + done * ORVE512_DIM);
                if (r != 0) return r;
            }
            return 0;
        });
        if (rc != 0) {
            fail(rc, "semantic_vector_indexing_system_add_embedding_orve512",
                 "row " + std::to_string(done) + " (id " + std::to_string(id[done]) +
                     ") refused; " + std::to_string(done) + " earlier rows committed");
        }
        return static_cast<int>(done);
    }

    void build_ivf(uint32_t nlist, uint32_t seed) {
        call_or_raise<shared>(
            [&](auto* sys) { return semantic_vector_indexing_system_build_ivf(sys, nlist, seed); },
            "semantic_vector_indexing_system_build_ivf",
            "needs at least " + std::to_string(ORVE_MIN_INDEX_ROWS) +
                " rows, 1 <= nlist <= rows, the flat store in place and no ingestion during the "
                "build");
    }

    void build_hivf(uint32_t b1, uint32_t b2, uint32_t seed) {
        call_or_raise<shared>(
            [&](auto* sys) {
                return semantic_vector_indexing_system_build_ivf_level2(sys, b1, b2, seed);
            },
            "semantic_vector_indexing_system_build_ivf_level2",
            "needs at least " + std::to_string(ORVE_MIN_INDEX_ROWS) +
                " rows, b1 * b2 <= rows, the flat store in place and no ingestion during the "
                "build");
    }

    void write_paged(const std::string& path_in) {
        const std::string path = c_string(path_in, "path");
        call_or_raise<exclusive>(
            [&](auto* sys) {
                return semantic_vector_indexing_system_build_ivf_paged(sys, path.c_str());
            },
            "semantic_vector_indexing_system_build_ivf_paged",
            "could not write and attach '" + path + "'");
    }

    void open_paged(const std::string& path_in) {
        const std::string path = c_string(path_in, "path");
        call_or_raise<exclusive>(
            [&](auto* sys) {
                return semantic_vector_indexing_system_open_ivf_paged(sys, path.c_str());
            },
            "semantic_vector_indexing_system_open_ivf_paged",
            "could not open '" + path + "' as a paged index");
    }

    void drop_flat() {
        call_or_raise<exclusive>([](auto* sys) { return orve512_drop_flat_slabs(sys, true); },
                                 "orve512_drop_flat_slabs");
    }

    py::tuple search(const py::array& query, const search_options& o) {
        const float* q = float_vector(query, ORVE512_DIM, "query");
        std::vector<vector_similarity_result> res(o.k);
        vector_similarity_query rec;
        fill_query(rec, o);
        rec.query_vector = q;
        uint32_t count = 0;
        const int rc = with_object<shared>([&](auto* sys) {
            return semantic_vector_indexing_system_search_similar(sys, &rec, res.data(), &count);
        });
        if (rc != 0) search_failed(rc, "semantic_vector_indexing_system_search_similar");
        py::array_t<int64_t> ids(count);
        py::array_t<float> scores(count);
        auto* id = ids.mutable_data();
        auto* sc = scores.mutable_data();
        for (uint32_t i = 0; i < count; ++i) {
            id[i] = res[i].node_id;
            sc[i] = res[i].similarity;
        }
        return py::make_tuple(ids, scores);
    }

    // One library call for the whole batch: the IVF is pinned once for every query.
    py::tuple search_batch_ivf(const py::array& queries, const search_options& o) {
        size_t nq = 0;
        const float* q = float_rows(queries, "queries", &nq);
        check_batch_size(nq, o.k);
        std::vector<vector_similarity_result> res(nq * o.k);
        std::vector<uint32_t> counts(nq, 0);
        py::array_t<int64_t> ids({static_cast<py::ssize_t>(nq), static_cast<py::ssize_t>(o.k)});
        py::array_t<float> scores({static_cast<py::ssize_t>(nq), static_cast<py::ssize_t>(o.k)});
        int64_t* id = ids.mutable_data();
        float* sc = scores.mutable_data();
        const int rc = with_object<shared>([&](auto* sys) {
            orve512_batch_query b;
            std::memset(&b, 0, sizeof b);
            b.n_queries = static_cast<uint32_t>(nq);
            b.k = o.k;
            b.min_similarity = o.min_similarity;
            b.use_ivf = 1;
            b.n_probe = o.nprobe;
            b.queries = q;
            b.results = res.data();
            b.counts = counts.data();
            b.rerank = o.rerank ? 1 : 0;
            b.rerank_factor = o.rerank_factor;
            const int r = semantic_vector_indexing_system_search_similar_orve512_batch(sys, &b);
            if (r == 0) {
                for (size_t i = 0; i < nq; ++i) {
                    copy_results(&res[i * o.k], counts[i], o.k, id + i * o.k, sc + i * o.k);
                }
            }
            return r;
        });
        if (rc != 0) {
            fail(rc, "semantic_vector_indexing_system_search_similar_orve512_batch",
                 "a query could not be answered (flat store dropped and no current IVF?)");
        }
        return py::make_tuple(ids, scores);
    }

    // The other paths have no batch entry point: loop over search_similar here.
    // first: the position of queries[0] in the caller's whole batch, for the error message
    // when the batch was split over threads.
    py::tuple search_batch_loop(const py::array& queries, const search_options& o, size_t first) {
        size_t nq = 0;
        const float* q = float_rows(queries, "queries", &nq);
        check_batch_size(nq, o.k);
        std::vector<vector_similarity_result> res(o.k);
        py::array_t<int64_t> ids({static_cast<py::ssize_t>(nq), static_cast<py::ssize_t>(o.k)});
        py::array_t<float> scores({static_cast<py::ssize_t>(nq), static_cast<py::ssize_t>(o.k)});
        int64_t* id = ids.mutable_data();
        float* sc = scores.mutable_data();
        vector_similarity_query rec;
        fill_query(rec, o);
        size_t failed_at = 0;
        const int rc = with_object<shared>([&](auto* sys) {
            for (size_t i = 0; i < nq; ++i) {
                rec.query_vector = q + i * ORVE512_DIM;
                uint32_t count = 0;
                const int r =
                    semantic_vector_indexing_system_search_similar(sys, &rec, res.data(), &count);
                if (r != 0) {
                    failed_at = i;
                    return r;
                }
                copy_results(res.data(), count, o.k, id + i * o.k, sc + i * o.k);
            }
            return 0;
        });
        if (rc != 0) {
            search_failed(rc, "semantic_vector_indexing_system_search_similar (query " +
                                  std::to_string(first + failed_at) + ")");
        }
        return py::make_tuple(ids, scores);
    }

  private:
    using shared = std::shared_lock<std::shared_mutex>;
    using exclusive = std::unique_lock<std::shared_mutex>;

    // Runs call(sys) on the open object with the interpreter lock released, holding the
    // object's lock as Lock (shared for the calls the library lets overlap, exclusive for those
    // it forbids to overlap with anything), and returns the library's code.
    template <class Lock, class F>
    int with_object(F&& call) {
        py::gil_scoped_release nogil;
        Lock lk(mu_);
        check_open();
        return call(sys_);
    }

    // with_object, raising orve.Error naming `name` (and `detail`) when the code is not 0.
    template <class Lock, class F>
    void call_or_raise(F&& call, const char* name, const std::string& detail = {}) {
        const int rc = with_object<Lock>(std::forward<F>(call));
        if (rc != 0) fail(rc, name, detail);
    }

    int create_with_capacity(std::optional<uint64_t> capacity) {
        std::lock_guard env(g_env_mutex);
        if (!capacity) return semantic_vector_indexing_system_create(sys_);
        const char* prev = std::getenv("ORVE_VECTOR_CAPACITY");
        std::optional<std::string> saved;
        if (prev) saved = prev;
        ::setenv("ORVE_VECTOR_CAPACITY", std::to_string(*capacity).c_str(), 1);
        const int rc = semantic_vector_indexing_system_create(sys_);
        if (saved) {
            ::setenv("ORVE_VECTOR_CAPACITY", saved->c_str(), 1);
        } else {
            ::unsetenv("ORVE_VECTOR_CAPACITY");
        }
        return rc;
    }

    void release_object() {
        if (!sys_) return;
        semantic_vector_indexing_system_destroy(sys_);
        std::free(sys_);
        sys_ = nullptr;
    }

    void check_open() const {
        if (!sys_) throw binding_error("the index is closed");
    }

    static void check_batch_size(size_t nq, uint32_t k) {
        if (nq > std::numeric_limits<uint32_t>::max() ||
            static_cast<uint64_t>(nq) * k > (uint64_t{1} << 31)) {
            throw py::value_error("queries x k too large for one batch");
        }
    }

    [[noreturn]] static void search_failed(int rc, const std::string& call) {
        if (rc == -7) {
            fail(rc, call, "brute force needed but the flat store was dropped");
        }
        fail(rc, call);
    }

    std::shared_mutex mu_;
    semantic_vector_indexing_system* sys_ = nullptr;
};

py::tuple quantize(const py::array& vec) {
    const float* in = float_vector(vec, ORVE512_DIM, "vec");
    py::array_t<int8_t> codes(ORVE512_DIM);
    float scale = 0.0f, norm = 0.0f;
    const int rc =
        orve_quantize_float_vector_symmetric(in, ORVE512_DIM, codes.mutable_data(), &scale, &norm);
    if (rc != 0) fail(rc, "orve_quantize_float_vector_symmetric");
    return py::make_tuple(codes, scale, norm);
}

int32_t dot512(const py::array& a, const py::array& b) {
    return orve_dotprod512_i8(int8_vector(a, "a"), int8_vector(b, "b"));
}

py::array_t<float> text_embedding(const std::string& text_in) {
    const std::string text = c_string(text_in, "text");
    py::array_t<float> out(ORVE_HASHED_EMBEDDING_DIM);
    const int rc = generate_semantic_embedding(text.c_str(), out.mutable_data());
    if (rc != 0) fail(rc, "generate_semantic_embedding", "the text must not be empty");
    return out;
}

py::array_t<float> hrr_atom(uint64_t seed, const std::string& role, const std::string& name) {
    const std::string r = c_string(role, "role"), n = c_string(name, "name");
    py::array_t<float> out(ORVE_HRR_DIM);
    orve_hrr_atom(seed, r.c_str(), n.c_str(), out.mutable_data());
    return out;
}

py::array_t<float> hrr_encode(uint64_t seed, const std::string& s, const std::string& r,
                              const std::string& o) {
    const std::string s2 = c_string(s, "subject"), r2 = c_string(r, "relation"),
                      o2 = c_string(o, "object");
    py::array_t<float> out(ORVE_HRR_DIM);
    orve_hrr_encode(seed, s2.c_str(), r2.c_str(), o2.c_str(), out.mutable_data());
    return out;
}

void raise_error(const std::string& msg, py::object code) {
    py::object exc = py::reinterpret_borrow<py::object>(g_error_type)(msg, code);
    PyErr_SetObject(g_error_type, exc.ptr());
}

}  // namespace

PYBIND11_MODULE(_core, m) {
    m.doc() = "Compiled bindings of libsemantic_vector_indexing (use the orve package instead).";
    g_error_type = py::object(py::module_::import("orve._errors").attr("Error")).release().ptr();

    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const library_error& e) {
            raise_error(e.what(), py::int_(e.code));
        } catch (const binding_error& e) {
            raise_error(e.what(), py::none());
        }
    });

    py::class_<search_options>(m, "SearchOptions")
        .def(py::init<>())
        .def_readwrite("k", &search_options::k)
        .def_readwrite("use_ivf", &search_options::use_ivf)
        .def_readwrite("nprobe", &search_options::nprobe)
        .def_readwrite("use_hivf", &search_options::use_hivf)
        .def_readwrite("nprobe_l1", &search_options::nprobe_l1)
        .def_readwrite("nprobe_l2", &search_options::nprobe_l2)
        .def_readwrite("rerank", &search_options::rerank)
        .def_readwrite("rerank_factor", &search_options::rerank_factor)
        .def_readwrite("min_similarity", &search_options::min_similarity);

    py::class_<System>(m, "System")
        .def(py::init<std::optional<uint64_t>, std::optional<std::string>>(),
             py::arg("capacity") = py::none(), py::arg("sidecar") = py::none())
        .def("close", &System::close)
        .def("open_sidecar", &System::open_sidecar)
        .def_property_readonly("closed", &System::closed)
        .def("stats", &System::stats)
        .def("node_count", &System::node_count)
        .def("load", &System::load)
        .def("add_with_ids", &System::add_with_ids)
        .def("build_ivf", &System::build_ivf)
        .def("build_hivf", &System::build_hivf)
        .def("write_paged", &System::write_paged)
        .def("open_paged", &System::open_paged)
        .def("drop_flat", &System::drop_flat)
        .def("search", &System::search)
        .def("search_batch_ivf", &System::search_batch_ivf)
        .def("search_batch_loop", &System::search_batch_loop, py::arg("queries"),
             py::arg("options"), py::arg("first") = 0);

    // The largest b1 and b2 the paged search handles: an H-IVF beyond it cannot be paged.
    m.attr("PAGED_MAX_BRANCHING") = py::int_(ORVE_IVF_PAGED_MAX_B);
    m.attr("VERSION") = py::str(ORVE_VERSION_STRING);
    m.attr("MAX_CAPACITY") = py::int_(ORVE_MAX_CAPACITY);
    m.attr("MIN_INDEX_ROWS") = py::int_(ORVE_MIN_INDEX_ROWS);
    m.def("vec_dim", &semantic_vector_indexing_system_get_vec_dim);
    m.def("quantize", &quantize);
    m.def("dot512", &dot512);
    m.def("text_embedding", &text_embedding);
    m.def("hrr_atom", &hrr_atom);
    m.def("hrr_encode", &hrr_encode);
}
