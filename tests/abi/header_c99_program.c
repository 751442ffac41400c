/* A C99 host: compiles the public header as C and calls the library through the shared
 * object. Exits non-zero on the first mismatch. */
#include <stdio.h>
#include <string.h>

#include "semantic_vector_indexing.h"

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

int main(void) {
    float v[512];
    int8_t codes[512];
    float scale = 0.0f, norm = 0.0f;
    int i;
    vector_similarity_result results[3];
    char version[32];

    /* The version and code macros are plain integer constants a C99 host can switch on. */
    snprintf(version, sizeof version, "%d.%d.%d", ORVE_VERSION_MAJOR, ORVE_VERSION_MINOR,
             ORVE_VERSION_PATCH);
    CHECK(strcmp(version, ORVE_VERSION_STRING) == 0);
    switch (orve_ivf_paged_open(NULL, NULL)) {
        case ORVE_PAGED_OPEN_BAD_ARG:
            break;
        default:
            CHECK(!"null arguments must give ORVE_PAGED_OPEN_BAD_ARG");
    }
    CHECK(ORVE_OK == 0 && ORVE_FAILED == -1 && ORVE_SEARCH_FLAT_DROPPED == -7);
    CHECK(ORVE_MAX_CAPACITY == 1100000 && ORVE_MIN_INDEX_ROWS == 1000);
    CHECK(vector_similarity_query_sizeof() == sizeof(vector_similarity_query));
    CHECK(vector_similarity_result_sizeof() == sizeof(vector_similarity_result));

    memset(v, 0, sizeof v);
    v[3] = 0.5f;
    CHECK(orve_quantize_float_vector_symmetric(v, 512, codes, &scale, &norm) == 0);
    CHECK(scale == 254.0f && norm == 0.5f && codes[3] == 127);
    CHECK(orve_dotprod512_i8(codes, codes) == 127 * 127);

    for (i = 0; i < 64; ++i) codes[i] = (int8_t)(i - 32);
    memset(codes + 64, 1, 64);
    CHECK(orve512_similarity_int8(codes, codes + 64) == -32);

    memset(results, 0, sizeof results);
    results[0].similarity = 0.1f;
    results[1].similarity = 0.3f;
    results[2].similarity = 0.2f;
    results[0].node_id = 1;
    results[1].node_id = 2;
    results[2].node_id = 3;
    sort_similarity_results(results, 3);
    CHECK(results[0].node_id == 2 && results[1].node_id == 3 && results[2].node_id == 1);

    printf("%s\n", failures == 0 ? "passed" : "failed");
    return failures == 0 ? 0 : 1;
}
